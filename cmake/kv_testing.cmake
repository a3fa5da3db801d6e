# Test registration shared by every test folder.
#
# kv_add_gtest(<target> <prefix> [PROPERTIES <name> <value>...]): natively each test case becomes a
# CTest test of its own; in the Windows cross build the whole program is one CTest test, because
# each Wine process costs about two seconds to start. PROPERTIES are set on every test either way.
function(kv_add_gtest target prefix)
  if(CMAKE_CROSSCOMPILING)
    add_test(NAME "${prefix}all" COMMAND ${target})
    cmake_parse_arguments(PARSE_ARGV 2 _kv "" "" "PROPERTIES")
    if(_kv_PROPERTIES)
      set_tests_properties("${prefix}all" PROPERTIES ${_kv_PROPERTIES})
    endif()
  else()
    gtest_discover_tests(${target} TEST_PREFIX "${prefix}" DISCOVERY_TIMEOUT 120 ${ARGN})
  endif()
endfunction()

# The environment variable whose folders the loader searches for a module loaded by name with no
# path, before the system's own: LD_LIBRARY_PATH; PATH on Windows, after the program's own folder.
# Under Wine the Linux PATH never reaches the program: Wine puts WINEPATH in front of the Windows
# PATH it keeps in its registry. Folders are joined with KV_MODULE_SEARCH_SEPARATOR (escaped for a
# test's ENVIRONMENT property).
if(WIN32 AND CMAKE_CROSSCOMPILING)
  set(KV_MODULE_SEARCH_VARIABLE WINEPATH)
  set(KV_MODULE_SEARCH_SEPARATOR "\\;")
elseif(WIN32)
  set(KV_MODULE_SEARCH_VARIABLE PATH)
  set(KV_MODULE_SEARCH_SEPARATOR "\\;")
else()
  set(KV_MODULE_SEARCH_VARIABLE LD_LIBRARY_PATH)
  set(KV_MODULE_SEARCH_SEPARATOR ":")
endif()
