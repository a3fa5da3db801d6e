# kv_run(WHAT <text> [EXPECT <exit code>] [OUTPUT <variable>] COMMAND <command...>): fails unless
# the command exits with EXPECT (0 unless given); OUTPUT receives its standard output.
function(kv_run)
  cmake_parse_arguments(PARSE_ARGV 0 R "" "WHAT;EXPECT;OUTPUT" "COMMAND")
  if(NOT DEFINED R_EXPECT)
    set(R_EXPECT 0)
  endif()
  execute_process(COMMAND ${R_COMMAND} RESULT_VARIABLE code OUTPUT_VARIABLE out
                  ERROR_VARIABLE err)
  if(NOT code EQUAL R_EXPECT)
    message(FATAL_ERROR "${R_WHAT} failed (exit ${code}, expected ${R_EXPECT}):\n"
                        "${R_COMMAND}\n${out}\n${err}")
  endif()
  message(STATUS "${R_WHAT}: ok ${out}")
  if(R_OUTPUT)
    set(${R_OUTPUT} "${out}" PARENT_SCOPE)
  endif()
endfunction()
