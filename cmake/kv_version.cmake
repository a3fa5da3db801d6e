# The project version of CMakeLists.txt is the only one: the soname's real file, the packages'
# names and kelvane-color --version take it directly; this file gives it to the Windows version
# resources and holds the Python package's version to it.

# kv_add_version_resource(<target> <description>): a VERSIONINFO resource (file and product
# version, file name) compiled into the target's DLL or EXE. Windows builds only.
function(kv_add_version_resource target description)
  if(NOT WIN32 OR NOT TARGET ${target})
    return()
  endif()
  get_target_property(_type ${target} TYPE)
  set(KV_RC_TYPE VFT_DLL)
  set(_suffix .dll)
  if(_type STREQUAL "EXECUTABLE")
    set(KV_RC_TYPE VFT_APP)
    set(_suffix .exe)
  endif()
  get_target_property(_name ${target} OUTPUT_NAME)
  if(NOT _name)
    set(_name ${target})
  endif()
  set(KV_RC_NAME "${_name}")
  set(KV_RC_FILE "${_name}${_suffix}")
  set(KV_RC_DESCRIPTION "${description}")
  # Four numbers, as Windows shows them: 0.1.0 is 0,1,0,0.
  string(REPLACE "." "," KV_RC_NUMBERS "${PROJECT_VERSION}.0.0.0")
  string(REGEX MATCH "^[0-9]+,[0-9]+,[0-9]+,[0-9]+" KV_RC_NUMBERS "${KV_RC_NUMBERS}")
  set(_rc "${PROJECT_BINARY_DIR}/version_resources/${target}.rc")
  configure_file("${CMAKE_CURRENT_FUNCTION_LIST_DIR}/install/version.rc.in" "${_rc}" @ONLY)
  target_sources(${target} PRIVATE "${_rc}")
endfunction()

# The Python package's metadata cannot read CMakeLists.txt, so its one version line must agree.
file(STRINGS "${PROJECT_SOURCE_DIR}/python/pyproject.toml" _kv_python_version
     REGEX "^version *= *\"[^\"]*\"")
string(REGEX REPLACE "^version *= *\"([^\"]*)\".*" "\\1" _kv_python_version "${_kv_python_version}")
if(_kv_python_version AND NOT _kv_python_version STREQUAL PROJECT_VERSION)
  message(FATAL_ERROR "python/pyproject.toml gives version \"${_kv_python_version}\", the project "
                      "(CMakeLists.txt) ${PROJECT_VERSION}: set its version line to "
                      "\"${PROJECT_VERSION}\"")
endif()
