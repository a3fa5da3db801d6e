#!/usr/bin/env bash
# Builds and runs every test of the given presets (default: release). The asan preset runs the
# same suite under AddressSanitizer and UndefinedBehaviorSanitizer; the windows preset cross-builds
# with MinGW-w64 and runs the suite under Wine.
# Usage: scripts/run-tests.sh [release|debug|asan|windows ...]
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/kv-packages.sh
kv_ensure_packages "${kv_linux_packages[@]}"

presets=("$@")
[ ${#presets[@]} -eq 0 ] && presets=(release)
for preset in "${presets[@]}"; do
    started=$(date +%s)
    if [ "${preset}" = windows ]; then
        kv_ensure_packages "${kv_windows_packages[@]}"
        # Quiet Wine, and no offer to install .NET or a browser engine into a new prefix (the
        # first start of a new prefix takes some seconds more).
        export WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
    fi
    echo "=== ${preset}: configure, build, test"
    cmake --preset "${preset}" >/dev/null
    cmake --build --preset "${preset}" -j "$(nproc)"
    ctest --preset "${preset}"
    echo "=== ${preset}: done in $(( $(date +%s) - started )) s"
done
