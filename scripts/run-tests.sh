#!/usr/bin/env bash
# Builds and runs every test of the given presets (default: release). The asan preset runs the
# same suite under AddressSanitizer and UndefinedBehaviorSanitizer.
# Usage: scripts/run-tests.sh [release|debug|asan ...]
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/kv-packages.sh
kv_ensure_packages "${kv_linux_packages[@]}"

presets=("$@")
[ ${#presets[@]} -eq 0 ] && presets=(release)
for preset in "${presets[@]}"; do
    echo "=== ${preset}: configure, build, test"
    cmake --preset "${preset}" >/dev/null
    cmake --build --preset "${preset}" -j "$(nproc)"
    ctest --preset "${preset}"
done
