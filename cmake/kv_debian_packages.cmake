# The Debian packages, one per install component: the library with its modules, named by its
# soname; the development files; kelvane-color; the Python package. dpkg-shlibdeps computes what
# each needs of the system; the dependencies among our own packages come from the components'
# DEPENDS, at this exact version. Each package's description starts with its own summary line
# (CPack would put CPACK_PACKAGE_DESCRIPTION_SUMMARY before every one).
set(KV_PACKAGE_MAINTAINER "kelvane_qor_color_processing developers <maintainers@kelvane.invalid>"
    CACHE STRING "Maintainer field of the Debian packages")

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${KV_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# kelvane-color needs the library, which lies in another package: dpkg-shlibdeps finds it in the
# build and leaves it to the component dependency below.
# The colour layer, which kelvane-color's package carries beside the tool, is built at the top.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    "${PROJECT_BINARY_DIR}/kelvane_qor_color_processing_suite" "${PROJECT_BINARY_DIR}")
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# Programs linked against the library then depend on this version or a later one of .so.0.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(KV_DEBIAN_LIBRARY_PACKAGE "libkelvane-qor-color-processing${PROJECT_VERSION_MAJOR}")
set(KV_DEBIAN_COLOR_PACKAGE "libkelvane-qor-color${PROJECT_VERSION_MAJOR}")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME "${KV_DEBIAN_LIBRARY_PACKAGE}")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
string(CONCAT CPACK_COMPONENT_LIBRARY_DESCRIPTION
    "${KV_PACKAGE_SUMMARY}\n"
    "The shared library libkelvane_qor_color_processing.so.${PROJECT_VERSION_MAJOR} and the "
    "modules it loads from its own folder: the LUT module, the logging module and the SSE4.1, "
    "AVX2 and AVX-512 vector modules.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME "libkelvane-qor-color-processing-dev")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
string(CONCAT CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "Color processing of 48-bit pixels (development files)\n"
    "The C header, the header-only C++ interface, the link to the library, the CMake package "
    "(find_package(kelvane_qor_color_processing)), the pkg-config file and the documentation.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME kelvane-color)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION graphics)
string(CONCAT CPACK_COMPONENT_TOOL_DESCRIPTION
    "Command-line tool of the kelvane_qor_color_processing library\n"
    "kelvane-color runs images and test charts through the color processor, converts between "
    "colour spaces and ICC profiles with the colour layer libkelvane_qor_color (package "
    "${KV_DEBIAN_COLOR_PACKAGE}), reports the processor's tier and the modules it found, and measures throughput.")

# Pure Python over ctypes: dpkg-shlibdeps has nothing to read, so its Python needs are named.
set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-kelvane-color)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3, python3-numpy")
string(CONCAT CPACK_COMPONENT_PYTHON_DESCRIPTION
    "Python interface of the kelvane_qor_color_processing library\n"
    "The package kelvane_color: numpy frames through the color processor, over ctypes.")

# The colour layer: its library, named by its soname, and its development files.
set(CPACK_DEBIAN_COLOR_PACKAGE_NAME "${KV_DEBIAN_COLOR_PACKAGE}")
set(CPACK_DEBIAN_COLOR_PACKAGE_SECTION libs)
string(CONCAT CPACK_COMPONENT_COLOR_DESCRIPTION
    "Colour layer of the kelvane_qor_color_processing library\n"
    "libkelvane_qor_color.so.${PROJECT_VERSION_MAJOR}: named colour spaces, ICC matrix-shaper "
    "profiles (LittleCMS) and CLF/CTF process lists (expat) turned into color processor set-ups.")
set(CPACK_DEBIAN_COLOR_DEVELOPMENT_PACKAGE_NAME libkelvane-qor-color-dev)
set(CPACK_DEBIAN_COLOR_DEVELOPMENT_PACKAGE_SECTION libdevel)
string(CONCAT CPACK_COMPONENT_COLOR_DEVELOPMENT_DESCRIPTION
    "Colour layer of the kelvane_qor_color_processing library (development files)\n"
    "The C header kelvane_qor_color.h, the C++ header kelvane_qor_color.hpp and the link to "
    "libkelvane_qor_color.so.")
