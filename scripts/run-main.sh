#!/usr/bin/env bash
# Builds the release preset and runs kelvane-color on its built-in test chart.
# Usage: scripts/run-main.sh [kelvane-color options...]
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/kv-packages.sh
kv_ensure_packages "${kv_linux_packages[@]}"

cmake --preset release >/dev/null
cmake --build --preset release --target kelvane-color -j "$(nproc)"
exec build/release/tools/kelvane-color/kelvane-color "$@"
