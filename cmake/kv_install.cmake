# Installation: the main library with its run-time modules beside it, the public header, a CMake
# package (find_package(kelvane_qor_color_processing) gives the imported target
# kelvane_qor_color_processing::kelvane_qor_color_processing), a pkg-config file, kelvane-color and
# the Python package kelvane_color. This file holds every install rule of the project's binaries,
# so each file is installed exactly once.
#
# Components: "library" (the main library, its soname link and its modules), "development"
# (header, unnumbered .so link or import library, CMake package, pkg-config file), "tool"
# (kelvane-color), "python" (the kelvane_color package).

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The library and the modules it loads by name stand in one folder: on Windows the application
# folder (bin, beside the programs), elsewhere the library folder, where the library's RUNPATH
# $ORIGIN finds the modules. Import libraries go to lib on every platform.
if(WIN32)
  set(KV_INSTALL_RUNTIME_DIR "${CMAKE_INSTALL_BINDIR}")
else()
  set(KV_INSTALL_RUNTIME_DIR "${CMAKE_INSTALL_LIBDIR}")
endif()
set(KV_INSTALL_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/kelvane_qor_color_processing")
# One folder for every Python 3 (the package is pure Python): Debian's own name for it, which the
# system interpreter searches when the prefix is /usr. Elsewhere put it on PYTHONPATH, or point
# this at an interpreter's site-packages folder.
set(KV_INSTALL_PYTHONDIR "lib/python3/dist-packages" CACHE STRING
    "Folder, relative to the prefix or absolute, that receives the Python package kelvane_color")

install(TARGETS kelvane_qor_color_processing EXPORT kelvane_qor_color_processing_targets
  RUNTIME DESTINATION "${KV_INSTALL_RUNTIME_DIR}" COMPONENT library
  LIBRARY DESTINATION "${KV_INSTALL_RUNTIME_DIR}" COMPONENT library
    NAMELINK_COMPONENT development
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development
  INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(FILES "${PROJECT_SOURCE_DIR}/include/kelvane_qor_color_processing.h"
              "${PROJECT_SOURCE_DIR}/include/kelvane_qor_color_processing.hpp"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" COMPONENT development)

# The modules keep their bare file names: the library loads them by name. The vector modules are
# MODULE libraries, whose DLL counts as a LIBRARY artifact on Windows, so both kinds name the
# same folder.
install(TARGETS
    kelvane_qor_LUT
    kelvane_qor_logger
    kelvane_qor_color_processing_vector_sse
    kelvane_qor_color_processing_vector_avx2
    kelvane_qor_color_processing_vector_avx512
  RUNTIME DESTINATION "${KV_INSTALL_RUNTIME_DIR}" COMPONENT library
  LIBRARY DESTINATION "${KV_INSTALL_RUNTIME_DIR}" COMPONENT library
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development)

install(EXPORT kelvane_qor_color_processing_targets
  NAMESPACE kelvane_qor_color_processing::
  FILE kelvane_qor_color_processing_targets.cmake
  DESTINATION "${KV_INSTALL_CMAKE_DIR}" COMPONENT development)
configure_package_config_file("${CMAKE_CURRENT_LIST_DIR}/install/package_config.cmake.in"
  "${PROJECT_BINARY_DIR}/kelvane_qor_color_processingConfig.cmake"
  INSTALL_DESTINATION "${KV_INSTALL_CMAKE_DIR}")
write_basic_package_version_file(
  "${PROJECT_BINARY_DIR}/kelvane_qor_color_processingConfigVersion.cmake"
  VERSION "${PROJECT_VERSION}" COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/kelvane_qor_color_processingConfig.cmake"
              "${PROJECT_BINARY_DIR}/kelvane_qor_color_processingConfigVersion.cmake"
  DESTINATION "${KV_INSTALL_CMAKE_DIR}" COMPONENT development)

# pkg-config: paths relative to the .pc file itself, so the install can be moved.
file(RELATIVE_PATH KV_PC_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" KV_PC_TO_PREFIX "${KV_PC_TO_PREFIX}")
configure_file("${CMAKE_CURRENT_LIST_DIR}/install/kelvane_qor_color_processing.pc.in"
  "${PROJECT_BINARY_DIR}/kelvane_qor_color_processing.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/kelvane_qor_color_processing.pc"
  DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT development)

if(TARGET kelvane-color)
  # The tool runs on the colour layer too, which its own component installs (the tool's
  # package depends on it).
  install(TARGETS kelvane-color RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT tool)
endif()

# The Python package, and beside it a record of where this install put the library, so that the
# package finds it with nothing but PYTHONPATH set. The record is written at install time, when
# the prefix (--prefix, DESTDIR) is known.
install(DIRECTORY "${PROJECT_SOURCE_DIR}/python/kelvane_color"
  DESTINATION "${KV_INSTALL_PYTHONDIR}" COMPONENT python
  FILES_MATCHING PATTERN "*.py" PATTERN "__pycache__" EXCLUDE)
configure_file("${CMAKE_CURRENT_LIST_DIR}/install/python_location.cmake.in"
  "${PROJECT_BINARY_DIR}/kv_python_location.cmake" @ONLY)
install(SCRIPT "${PROJECT_BINARY_DIR}/kv_python_location.cmake" COMPONENT python)

# The Windows version resources, the MSVC import library, and the archive and packages made from
# all of the above.
include("${CMAKE_CURRENT_LIST_DIR}/kv_version.cmake")
foreach(_kv_resource
    "kelvane_qor_color_processing:Color processing of 48-bit pixels"
    "kelvane_qor_LUT:kelvane_qor_color_processing LUT module"
    "kelvane_qor_logger:kelvane_qor_color_processing logging module"
    "kelvane_qor_color_processing_vector_sse:kelvane_qor_color_processing SSE4.1 module"
    "kelvane_qor_color_processing_vector_avx2:kelvane_qor_color_processing AVX2 module"
    "kelvane_qor_color_processing_vector_avx512:kelvane_qor_color_processing AVX-512 module"
    "kelvane-color:kelvane-color, the command-line tool of kelvane_qor_color_processing"
    "kelvane_qor_color:kelvane_qor_color_processing colour layer")
  string(REPLACE ":" ";" _kv_resource "${_kv_resource}")
  kv_add_version_resource(${_kv_resource})
endforeach()
include("${CMAKE_CURRENT_LIST_DIR}/kv_msvc_import_library.cmake")
include("${CMAKE_CURRENT_LIST_DIR}/kv_packaging.cmake")
