# What users download: on Windows the archive kelvane_qor_color_processing-<version>-win64.zip, on
# Linux the Debian packages, all made by CPack from the install rules of cmake/kv_install.cmake
# (scripts/package.sh runs it; docs/packages.md describes the files).
include("${CMAKE_CURRENT_LIST_DIR}/kv_bundle.cmake")

# The documentation travels with the development files.
if(WIN32)
  set(KV_INSTALL_DOC_DIR doc)
else()
  set(KV_INSTALL_DOC_DIR "${CMAKE_INSTALL_DOCDIR}")
endif()
install(FILES "${PROJECT_SOURCE_DIR}/README.md" DESTINATION "${KV_INSTALL_DOC_DIR}"
        COMPONENT development)
install(DIRECTORY "${PROJECT_SOURCE_DIR}/docs/" DESTINATION "${KV_INSTALL_DOC_DIR}/docs"
        COMPONENT development FILES_MATCHING PATTERN "*.md" PATTERN "*.svg" PATTERN "*.cpp")

# MinGW links its compiler's runtime (libstdc++, libgcc, winpthreads, the mingw-w64 start-up code)
# into every DLL and program, so their licences travel with them: Debian's texts of them.
if(WIN32 AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  set(_kv_gcc_texts "/usr/share/doc/gcc-mingw-w64-base/copyright"
                    "/usr/share/common-licenses/GPL-3")
  set(_kv_mingw_texts "/usr/share/doc/mingw-w64-x86-64-dev/copyright")
  set(_kv_missing)
  foreach(_kv_text IN LISTS _kv_gcc_texts _kv_mingw_texts)
    if(NOT EXISTS "${_kv_text}")
      list(APPEND _kv_missing "${_kv_text}")
    endif()
  endforeach()
  if(NOT _kv_missing)
    kv_bundle_dependency(gcc-runtime LICENSE ${_kv_gcc_texts})
    kv_bundle_dependency(mingw-w64-runtime LICENSE ${_kv_mingw_texts})
  else()
    message(WARNING "Debian's licence texts of the MinGW-w64 runtime are missing: the install "
                    "and the archive go without them: ${_kv_missing}")
  endif()
endif()

set(CPACK_PACKAGE_NAME kelvane_qor_color_processing)
set(CPACK_PACKAGE_VENDOR "kelvane_qor_color_processing developers")
set(KV_PACKAGE_SUMMARY
    "Color processing of 48-bit pixels: LUTs, 3x3 matrix, clamp, shift, narrowing")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_COMPONENTS_ALL library development tool python)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS library)
set(CPACK_COMPONENT_TOOL_DEPENDS library)
set(CPACK_COMPONENT_PYTHON_DEPENDS library)
# The colour layer (cmake/kv_color.cmake), when it is built. On Windows LittleCMS and expat are
# linked into its DLL from Debian's sources (cmake/kv_color_deps.cmake), so their licences go along.
if(TARGET kelvane_qor_color)
  list(APPEND CPACK_COMPONENTS_ALL color color_development)
  set(CPACK_COMPONENT_COLOR_DEPENDS library)
  set(CPACK_COMPONENT_COLOR_DEVELOPMENT_DEPENDS color development)
  set(CPACK_COMPONENT_TOOL_DEPENDS library color)
  set(_kv_color_sources "${PROJECT_BINARY_DIR}/color-deps/install/.complete")
  if(WIN32 AND EXISTS "${_kv_color_sources}")
    file(STRINGS "${_kv_color_sources}" _kv_color_sources LIMIT_COUNT 1)
    separate_arguments(_kv_color_sources UNIX_COMMAND "${_kv_color_sources}")
    foreach(_kv_source IN LISTS _kv_color_sources)
      get_filename_component(_kv_name "${_kv_source}" NAME)
      string(REGEX REPLACE "-[0-9.]+$" "" _kv_name "${_kv_name}")
      kv_bundle_dependency(${_kv_name} LICENSE "${_kv_source}/COPYING")
    endforeach()
  endif()
endif()

# zlib is linked into kelvane-color.exe (it compresses the PNG profiles it embeds).
if(WIN32 AND TARGET kv_zlib AND EXISTS /usr/share/doc/libz-mingw-w64-dev/copyright)
  kv_bundle_dependency(zlib LICENSE /usr/share/doc/libz-mingw-w64-dev/copyright)
endif()

if(WIN32)
  # One archive holding every component.
  set(CPACK_GENERATOR ZIP)
  set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${KV_PACKAGE_SUMMARY}")
  set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
  set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
  set(CPACK_COMPONENT_INCLUDE_TOPLEVEL_DIRECTORY ON)
  set(CPACK_PACKAGE_FILE_NAME "kelvane_qor_color_processing-${PROJECT_VERSION}-win64")
  set(CPACK_ARCHIVE_FILE_NAME "${CPACK_PACKAGE_FILE_NAME}")
else()
  include("${CMAKE_CURRENT_LIST_DIR}/kv_debian_packages.cmake")
endif()
include(CPack)
