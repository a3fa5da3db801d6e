# Installation: the main library with its run-time modules beside it, the public header, a CMake
# package (find_package(kelvane_qor_color_processing) gives the imported target
# kelvane_qor_color_processing::kelvane_qor_color_processing), a pkg-config file, and kelvane-color.
#
# Components: "library" (the main library and its modules), "development" (header, CMake package,
# pkg-config file), "tool" (kelvane-color).

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Companion modules are found beside the main library: on Windows that is the application folder
# (bin), elsewhere the library's own folder through its RUNPATH $ORIGIN.
if(WIN32)
  set(KV_INSTALL_MODULE_DIR "${CMAKE_INSTALL_BINDIR}")
else()
  set(KV_INSTALL_MODULE_DIR "${CMAKE_INSTALL_LIBDIR}")
endif()
set(KV_INSTALL_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/kelvane_qor_color_processing")

install(TARGETS kelvane_qor_color_processing EXPORT kelvane_qor_color_processing_targets
  RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT library
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT library
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development
  INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(FILES "${PROJECT_SOURCE_DIR}/include/kelvane_qor_color_processing.h"
              "${PROJECT_SOURCE_DIR}/include/kelvane_qor_color_processing.hpp"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" COMPONENT development)

# Whatever module targets this tree builds.
foreach(_kv_module
    kelvane_qor_LUT
    kelvane_qor_logger
    kelvane_qor_color_processing_vector_sse
    kelvane_qor_color_processing_vector_avx2
    kelvane_qor_color_processing_vector_avx512)
  if(TARGET ${_kv_module})
    install(TARGETS ${_kv_module}
      RUNTIME DESTINATION "${KV_INSTALL_MODULE_DIR}" COMPONENT library
      LIBRARY DESTINATION "${KV_INSTALL_MODULE_DIR}" COMPONENT library
      ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development)
  endif()
endforeach()

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
  install(TARGETS kelvane-color RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT tool)
endif()
