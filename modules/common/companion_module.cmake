# How a companion module is built: a shared library named exactly <base>.so / <base>.dll (no
# "lib" prefix), exporting only the names of its export list, placed in the one folder where the
# main library and the tests find the companion modules. cmake/kv_install.cmake installs it beside
# the main library.

include(GNUInstallDirs)
find_package(Threads REQUIRED)

if(NOT DEFINED KV_MODULE_OUTPUT_DIRECTORY)
  set(KV_MODULE_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/modules")
endif()

# kv_add_companion_module(<base name> SOURCES <files...> EXPORTS_MAP <file.map> EXPORTS_DEF <file.def>)
# The .map is the GNU linker's version script, the .def the Windows export list; both list the same
# names.
function(kv_add_companion_module name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "EXPORTS_MAP;EXPORTS_DEF" "SOURCES")
  add_library(${name} SHARED ${arg_SOURCES})
  # "$<0:>" keeps multi-config generators from adding a per-configuration subfolder.
  set_target_properties(${name} PROPERTIES
    PREFIX ""
    OUTPUT_NAME ${name}
    LIBRARY_OUTPUT_DIRECTORY "${KV_MODULE_OUTPUT_DIRECTORY}$<0:>"
    RUNTIME_OUTPUT_DIRECTORY "${KV_MODULE_OUTPUT_DIRECTORY}$<0:>"
    ARCHIVE_OUTPUT_DIRECTORY "${KV_MODULE_OUTPUT_DIRECTORY}$<0:>")
  target_include_directories(${name} PRIVATE "${PROJECT_SOURCE_DIR}")
  target_link_libraries(${name} PRIVATE Threads::Threads)
  if(WIN32)
    target_sources(${name} PRIVATE "${arg_EXPORTS_DEF}")
  elseif(NOT APPLE)
    target_link_options(${name} PRIVATE "LINKER:--version-script=${arg_EXPORTS_MAP}")
    set_property(TARGET ${name} APPEND PROPERTY LINK_DEPENDS "${arg_EXPORTS_MAP}")
  endif()
endfunction()
