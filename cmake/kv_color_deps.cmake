# LittleCMS 2 and expat for the Windows cross build, which Debian does not package for MinGW: the
# same versions as the native -dev packages, from Debian's source packages (apt-get source, with a
# deb-src entry derived from the archive this machine already uses, in an apt state private to the
# build tree), built once with the cross toolchain and cached in <build>/color-deps. Nothing else
# is downloaded. Sets KV_COLOR_DEPS_FOUND and the imported targets kv_lcms2 and kv_expat.
set(KV_COLOR_DEPS_FOUND FALSE)
set(_kv_deps "${PROJECT_BINARY_DIR}/color-deps")
set(_kv_install "${_kv_deps}/install")

# kv_color_deps_run(<what> <command...>): runs at configure time; on failure leaves a message.
function(kv_color_deps_run what)
  execute_process(COMMAND ${ARGN} WORKING_DIRECTORY "${_kv_deps}/src" RESULT_VARIABLE _kv_result
                  OUTPUT_FILE "${_kv_deps}/${what}.log" ERROR_FILE "${_kv_deps}/${what}.log")
  if(NOT _kv_result EQUAL 0)
    set(_kv_deps_failed "${what} failed (${_kv_deps}/${what}.log)" PARENT_SCOPE)
  endif()
endfunction()

# A deb-src stanza for every deb stanza of the machine's Debian sources.
function(kv_color_deps_sources)
  set(_kv_text "")
  file(GLOB _kv_files /etc/apt/sources.list.d/*.sources)
  foreach(_kv_file ${_kv_files})
    file(READ "${_kv_file}" _kv_content)
    if(_kv_content MATCHES "debian")
      string(REGEX REPLACE "Types: deb\n" "Types: deb-src\n" _kv_content "${_kv_content}")
      string(APPEND _kv_text "${_kv_content}\n")
    endif()
  endforeach()
  if(EXISTS /etc/apt/sources.list)
    file(STRINGS /etc/apt/sources.list _kv_lines REGEX "^deb ")
    foreach(_kv_line ${_kv_lines})
      string(REGEX REPLACE "^deb " "deb-src " _kv_line "${_kv_line}")
      file(APPEND "${_kv_deps}/apt/sources/debian-src.list" "${_kv_line}\n")
    endforeach()
  endif()
  file(WRITE "${_kv_deps}/apt/sources/debian-src.sources" "${_kv_text}")
endfunction()

# Unpacks the source package `name[=version]` into src/, trying every revision the archive lists
# when that one cannot be had; sets _kv_deps_failed otherwise.
macro(kv_color_deps_source package)
  string(REGEX REPLACE "=.*" "" _kv_name "${package}")
  execute_process(COMMAND ${_kv_apt_cache} showsrc --only-source ${_kv_name}
                  OUTPUT_VARIABLE _kv_listing ERROR_QUIET)
  string(REGEX MATCHALL "\nVersion: [^\n]+" _kv_versions "\n${_kv_listing}")
  list(TRANSFORM _kv_versions REPLACE "\nVersion: " "${_kv_name}=")
  set(_kv_done FALSE)
  foreach(_kv_try ${package} ${_kv_versions})
    if(NOT _kv_done)
      unset(_kv_deps_failed)
      kv_color_deps_run(apt-source ${_kv_apt} source --only-source ${_kv_try})
      if(NOT _kv_deps_failed)
        set(_kv_done TRUE)
      endif()
    endif()
  endforeach()
endmacro()

# The installed -dev package's version, so the source is the same release; empty when absent.
function(kv_color_deps_version package out)
  execute_process(COMMAND dpkg-query -W -f=\${Version} ${package} OUTPUT_VARIABLE _kv_version
                  ERROR_QUIET RESULT_VARIABLE _kv_result)
  if(NOT _kv_result EQUAL 0)
    set(_kv_version "")
  endif()
  set(${out} "${_kv_version}" PARENT_SCOPE)
endfunction()

if(NOT EXISTS "${_kv_install}/.complete")
  find_program(KV_APT_GET apt-get)
  find_program(KV_DPKG_SOURCE dpkg-source)
  if(NOT KV_APT_GET OR NOT KV_DPKG_SOURCE)
    set(_kv_deps_failed "apt-get and dpkg-source (Debian: dpkg-dev) are needed")
  else()
    file(REMOVE_RECURSE "${_kv_deps}")
    file(MAKE_DIRECTORY "${_kv_deps}/src" "${_kv_deps}/apt/sources" "${_kv_deps}/apt/lists/partial"
         "${_kv_deps}/apt/cache/archives/partial")
    kv_color_deps_sources()
    set(_kv_apt "${KV_APT_GET}" -q -o "Dir::Etc::SourceList=/dev/null"
        -o "Dir::Etc::SourceParts=${_kv_deps}/apt/sources" -o "Dir::State::Lists=${_kv_deps}/apt/lists"
        -o "Dir::Cache=${_kv_deps}/apt/cache" -o "Debug::NoLocking=1")
    string(REPLACE "apt-get" "apt-cache" _kv_apt_cache "${_kv_apt}")
    kv_color_deps_version(liblcms2-dev _kv_lcms_version)
    kv_color_deps_version(libexpat1-dev _kv_expat_version)
    set(_kv_lcms "lcms2")
    set(_kv_expat "expat")
    if(_kv_lcms_version)
      set(_kv_lcms "lcms2=${_kv_lcms_version}")
    endif()
    if(_kv_expat_version)
      set(_kv_expat "expat=${_kv_expat_version}")
    endif()
    message(STATUS "colour layer: building ${_kv_lcms} and ${_kv_expat} from Debian sources")
    kv_color_deps_run(apt-update ${_kv_apt} update)
    # The archive may have moved past the installed Debian revision (security updates), and a
    # mirror may lack some revisions: then each revision of the same package it lists, in turn.
    foreach(_kv_package ${_kv_lcms} ${_kv_expat})
      if(NOT _kv_deps_failed)
        kv_color_deps_source(${_kv_package})
      endif()
    endforeach()
    file(GLOB _kv_lcms_dir LIST_DIRECTORIES true "${_kv_deps}/src/lcms2-*")
    file(GLOB _kv_expat_dir LIST_DIRECTORIES true "${_kv_deps}/src/expat-*")
    if(NOT _kv_deps_failed)
      kv_color_deps_run(configure "${CMAKE_COMMAND}" -S "${PROJECT_SOURCE_DIR}/cmake/color_deps"
        -B "${_kv_deps}/build" -G Ninja "-DCMAKE_TOOLCHAIN_FILE=${CMAKE_TOOLCHAIN_FILE}"
        -DCMAKE_BUILD_TYPE=Release "-DCMAKE_INSTALL_PREFIX=${_kv_install}"
        "-DLCMS2_SOURCE=${_kv_lcms_dir}" "-DEXPAT_SOURCE=${_kv_expat_dir}")
    endif()
    if(NOT _kv_deps_failed)
      kv_color_deps_run(build "${CMAKE_COMMAND}" --build "${_kv_deps}/build" --target install)
    endif()
    if(NOT _kv_deps_failed)
      file(WRITE "${_kv_install}/.complete" "${_kv_lcms_dir} ${_kv_expat_dir}\n")
    endif()
  endif()
endif()

if(EXISTS "${_kv_install}/.complete")
  set(KV_CROSS_LCMS2 "${_kv_install}/lib/liblcms2.a")
  set(KV_CROSS_EXPAT "${_kv_install}/lib/libexpat.a")
  if(EXISTS "${KV_CROSS_LCMS2}" AND EXISTS "${KV_CROSS_EXPAT}")
    add_library(kv_lcms2 STATIC IMPORTED)
    set_target_properties(kv_lcms2 PROPERTIES IMPORTED_LOCATION "${KV_CROSS_LCMS2}"
                          INTERFACE_INCLUDE_DIRECTORIES "${_kv_install}/include"
                          INTERFACE_COMPILE_DEFINITIONS CMS_NO_REGISTER_KEYWORD=1)
    add_library(kv_expat STATIC IMPORTED)
    set_target_properties(kv_expat PROPERTIES IMPORTED_LOCATION "${KV_CROSS_EXPAT}"
                          INTERFACE_INCLUDE_DIRECTORIES "${_kv_install}/include"
                          INTERFACE_COMPILE_DEFINITIONS XML_STATIC)
    set(KV_COLOR_DEPS_FOUND TRUE)
  else()
    set(_kv_deps_failed "the built libraries are missing from ${_kv_install}/lib")
  endif()
endif()
if(NOT KV_COLOR_DEPS_FOUND)
  message(STATUS "colour layer skipped in this cross build: LittleCMS and expat from Debian's "
                 "sources: ${_kv_deps_failed}")
endif()
