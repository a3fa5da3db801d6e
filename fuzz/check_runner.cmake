# The runner's reporting, against the planted faults of fuzz_runner_self_test: for each of THROW
# and CRASH, the run must fail, name the saved file, print the case as hex, and the file must hold
# the case. Arguments: -DRUNNER=<program> -DWORK=<empty folder to use>.
file(REMOVE_RECURSE "${WORK}")
file(MAKE_DIRECTORY "${WORK}")
file(WRITE "${WORK}/refused" "REFUSE")
foreach(planted THROW CRASH)
  file(WRITE "${WORK}/${planted}" "${planted}")
  execute_process(COMMAND "${RUNNER}" --seed 7 --cases 0 --findings "${WORK}" "${WORK}/refused"
                          "${WORK}/${planted}"
                  RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  set(saved "${WORK}/fuzz_runner_self_test-seed7-corpus1.bin")
  string(HEX "${planted}" hex)
  string(REGEX REPLACE "(..)" "\\1 " hex "${hex}")
  if(result EQUAL 0 OR NOT output MATCHES "saved as [^\n]*seed7-corpus1.bin\n${hex}")
    message(FATAL_ERROR "${planted}: exit ${result}, expected a finding saved and shown:\n${output}")
  endif()
  file(READ "${saved}" content)
  if(NOT content STREQUAL planted)
    message(FATAL_ERROR "${planted}: the saved case holds '${content}'")
  endif()
  file(REMOVE "${saved}")
endforeach()
