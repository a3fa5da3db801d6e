# kv_bundle_dependency(<name> LICENSE <file>... [FILES <file>...]): a third-party library that
# Windows users receive from us, in the install and the archive. FILES (its DLLs) go to bin beside
# our DLLs, where Windows finds them; each LICENSE text goes to licenses/<name>/. On Linux nothing
# is bundled: the system's packages provide the library and the .deb files depend on them
# (computed by dpkg-shlibdeps). A layer that links LittleCMS or expat on Windows calls, e.g.:
#
#   include("${PROJECT_SOURCE_DIR}/cmake/kv_bundle.cmake")
#   kv_bundle_dependency(lcms2 LICENSE "${LCMS2_ROOT}/COPYING" FILES "${LCMS2_ROOT}/bin/liblcms2-2.dll")
#
# and installs its own DLL with install(TARGETS ... RUNTIME DESTINATION bin COMPONENT library).
include_guard(GLOBAL)
include(GNUInstallDirs)

function(kv_bundle_dependency name)
  cmake_parse_arguments(PARSE_ARGV 1 B "" "" "LICENSE;FILES")
  if(NOT WIN32)
    return()
  endif()
  if(NOT B_LICENSE)
    message(FATAL_ERROR "kv_bundle_dependency(${name}): a bundled library needs its licence text")
  endif()
  foreach(_file IN LISTS B_LICENSE B_FILES)
    if(NOT EXISTS "${_file}")
      message(FATAL_ERROR "kv_bundle_dependency(${name}): ${_file} does not exist")
    endif()
  endforeach()
  install(FILES ${B_LICENSE} DESTINATION "licenses/${name}" COMPONENT library)
  if(B_FILES)
    install(FILES ${B_FILES} DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT library)
  endif()
endfunction()
