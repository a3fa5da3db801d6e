#!/usr/bin/env bash
# Builds the release preset, installs it into build/release/stage and runs kelvane-color there on
# its built-in 16-bit test chart (writing chart.png in the current folder), or with the options
# given.
# Usage: scripts/run-main.sh [kelvane-color options...]
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
source "${root}/scripts/kv-packages.sh"
kv_ensure_packages "${kv_linux_packages[@]}"

(
    cd "${root}"
    cmake --preset release >/dev/null
    cmake --build --preset release -j "$(nproc)"
    cmake --install build/release --prefix build/release/stage >/dev/null
)
[ $# -eq 0 ] && set -- -o chart.png
exec "${root}/build/release/stage/bin/kelvane-color" "$@"
