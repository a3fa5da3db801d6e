# Sourced by the scripts in this folder: makes sure the Debian packages a build needs are there.
# As root it installs what is missing; otherwise it names the packages and stops.

kv_linux_packages=(cmake ninja-build g++ python3 binutils ccache pkg-config libpng-dev libtiff-dev
                   libgtest-dev libgmock-dev python3-numpy python3-pytest python3-setuptools
                   python3-wheel python3-pip python3-dask python3-distributed valgrind
                   liblcms2-dev libexpat1-dev colord-data icc-profiles-free dpkg-dev file ffmpeg
                   python3-pil)

# The Windows cross build: MinGW-w64 (POSIX threads), GoogleTest's sources to build it with, Wine
# to run the tests, dpkg-dev for apt-get source (the colour layer's LittleCMS and expat are built
# from Debian's source packages, cmake/kv_color_deps.cmake), llvm-dlltool for the MSVC import
# library, and clang and lld-link for the test host built as Visual Studio builds it.
kv_windows_packages=(g++-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64 googletest wine64
                     dpkg-dev llvm clang lld libz-mingw-w64-dev)

kv_ensure_packages() {
    local missing=() pkg
    for pkg in "$@"; do
        if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
            missing+=("$pkg")
        fi
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    if [ "$(id -u)" -ne 0 ] || ! command -v apt-get >/dev/null 2>&1; then
        echo "error: missing Debian packages: ${missing[*]}" >&2
        echo "       install them with: sudo apt-get install ${missing[*]}" >&2
        exit 1
    fi
    echo "installing missing Debian packages: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}
