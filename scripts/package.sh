#!/usr/bin/env bash
# Makes what users download, into build/packages: the Debian packages from the release build and
# the Windows archive kelvane_qor_color_processing-<version>-win64.zip from the windows build
# (MinGW-w64 cross build). Builds both presets first unless --no-build is given. See
# docs/packages.md.
# Usage: scripts/package.sh [--no-build]
set -euo pipefail
cd "$(dirname "$0")/.."
build=1
case "${1:-}" in
    "") ;;
    --no-build) build=0 ;;
    *) echo "usage: scripts/package.sh [--no-build]" >&2; exit 2 ;;
esac
source scripts/kv-packages.sh
kv_ensure_packages "${kv_linux_packages[@]}" "${kv_windows_packages[@]}"

out=build/packages
mkdir -p "${out}"
for preset in release windows; do
    if [ "${build}" = 1 ]; then
        echo "=== ${preset}: configure, build"
        cmake --preset "${preset}" >/dev/null
        cmake --build --preset "${preset}" -j "$(nproc)"
    elif [ ! -f "build/${preset}/CPackConfig.cmake" ]; then
        echo "error: build/${preset} is not configured: run scripts/package.sh without --no-build" >&2
        exit 1
    fi
    echo "=== ${preset}: packages"
    # CPack's scratch folder is the preset's own, so the two runs do not share it. Its output (a
    # warning for each module without a soname among them) is shown only when it fails.
    if ! cpack --config "build/${preset}/CPackConfig.cmake" -B "build/${preset}/cpack" \
            >"build/${preset}/cpack.log" 2>&1; then
        cat "build/${preset}/cpack.log" >&2
        exit 1
    fi
    find "build/${preset}/cpack" -maxdepth 1 -type f \( -name '*.deb' -o -name '*.zip' \) \
        -exec mv -f {} "${out}/" \;
done
ls -l "${out}"
