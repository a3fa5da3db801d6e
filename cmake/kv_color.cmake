# The colour layer (color/): named spaces, ICC matrix-shaper profiles and CLF/CTF process lists
# turned into processor set-ups, as the shared library kelvane_qor_color with the C ABI of
# include/kelvane_qor_color.h (the C++ API, include/kelvane_qor_color.hpp, is header-only over
# it). It needs LittleCMS 2 and expat; without them the layer is skipped with a message.
# KV_COLOR_LCMS2 and KV_COLOR_EXPAT name the two libraries' targets for everything below.
if(CMAKE_CROSSCOMPILING AND WIN32)
  include(cmake/kv_color_deps.cmake)
  if(NOT KV_COLOR_DEPS_FOUND)
    return()
  endif()
  set(KV_COLOR_LCMS2 kv_lcms2)
  set(KV_COLOR_EXPAT kv_expat)
elseif(CMAKE_CROSSCOMPILING)
  message(STATUS "colour layer skipped in this cross build: no LittleCMS and expat for the target")
  return()
else()
  find_package(PkgConfig QUIET)
  if(PkgConfig_FOUND)
    pkg_check_modules(KV_LCMS2 QUIET IMPORTED_TARGET lcms2)
    pkg_check_modules(KV_EXPAT QUIET IMPORTED_TARGET expat)
  endif()
  if(NOT KV_LCMS2_FOUND OR NOT KV_EXPAT_FOUND)
    message(STATUS "colour layer skipped: LittleCMS 2 (lcms2) and expat are needed "
                   "(Debian: liblcms2-dev libexpat1-dev)")
    return()
  endif()
  set(KV_COLOR_LCMS2 PkgConfig::KV_LCMS2)
  set(KV_COLOR_EXPAT PkgConfig::KV_EXPAT)
endif()

# The layer's code as a static library, which the tests and benchmarks also link for the parts
# the C ABI does not show; the shared library adds the C ABI on top.
add_library(kv_color_core STATIC
  color/color_error.cpp
  color/file_input.cpp
  color/icc_profile.cpp
  color/matrix3.cpp
  color/named_spaces.cpp
  color/process_list.cpp
  color/process_list_nodes.cpp
  color/processor_setup.cpp
  color/transfer_curve.cpp
  color/xml_tree.cpp)
target_include_directories(kv_color_core PUBLIC "${PROJECT_SOURCE_DIR}"
                           "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>")
target_link_libraries(kv_color_core PUBLIC kelvane_qor_color_processing
                      PRIVATE ${KV_COLOR_LCMS2} ${KV_COLOR_EXPAT})

add_library(kelvane_qor_color SHARED color/c_api.cpp)
target_include_directories(kelvane_qor_color PUBLIC
                           "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>")
target_include_directories(kelvane_qor_color PRIVATE "${PROJECT_SOURCE_DIR}")
target_link_libraries(kelvane_qor_color PUBLIC kelvane_qor_color_processing PRIVATE kv_color_core)
target_compile_definitions(kelvane_qor_color PRIVATE KV_COLOR_LAYER_BUILD)
# Linux: soname libkelvane_qor_color.so.0 on the real file .so.0.<minor>.<patch>, as the
# processing library has, so a later incompatible layer can stand beside this one.
set_target_properties(kelvane_qor_color PROPERTIES
  VERSION "${PROJECT_VERSION}" SOVERSION "${PROJECT_VERSION_MAJOR}")
if(WIN32)
  set_target_properties(kelvane_qor_color PROPERTIES PREFIX "")
  if(NOT MSVC)
    # The exports as a .def, from which cmake/kv_msvc_import_library.cmake makes the MSVC .lib.
    set(KV_COLOR_LAYER_DEF "${PROJECT_BINARY_DIR}/kelvane_qor_color.def")
    target_link_options(kelvane_qor_color PRIVATE "LINKER:--output-def,${KV_COLOR_LAYER_DEF}")
  endif()
else()
  # The processing library is found beside this one once installed.
  set_target_properties(kelvane_qor_color PROPERTIES
    BUILD_WITH_INSTALL_RPATH ON INSTALL_RPATH "\$ORIGIN")
endif()

# Installed beside the processing library: the library (component color), its headers and the
# unnumbered link or import library for building hosts (component color_development).
include(GNUInstallDirs)
install(TARGETS kelvane_qor_color
        RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT color
        LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT color
          NAMELINK_COMPONENT color_development
        ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT color_development)
install(FILES include/kelvane_qor_color.h include/kelvane_qor_color.hpp
        COMPONENT color_development DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")

# The benchmarks: speed against LittleCMS (kv_color_benchmark) and the accuracy table
# (kv_color_accuracy). They run with the real LUT and vector modules on the module search path.
add_library(kv_color_measure STATIC bench/color_measure.cpp)
target_include_directories(kv_color_measure PUBLIC "${PROJECT_SOURCE_DIR}")
target_link_libraries(kv_color_measure PUBLIC kelvane_qor_color ${KV_COLOR_LCMS2})
foreach(_kv_program color_benchmark color_accuracy)
  add_executable(kv_${_kv_program} bench/${_kv_program}.cpp)
  target_link_libraries(kv_${_kv_program} PRIVATE kv_color_measure ${KV_COLOR_LCMS2})
endforeach()
