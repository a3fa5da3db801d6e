# Test registration shared by every test folder.
#
# kv_add_gtest(<target> <prefix>): natively each test case becomes a CTest test of its own; in the
# Windows cross build the whole program is one CTest test, because each Wine process costs about
# two seconds to start.
function(kv_add_gtest target prefix)
  if(CMAKE_CROSSCOMPILING)
    add_test(NAME "${prefix}all" COMMAND ${target})
  else()
    gtest_discover_tests(${target} TEST_PREFIX "${prefix}" DISCOVERY_TIMEOUT 120 ${ARGN})
  endif()
endfunction()
