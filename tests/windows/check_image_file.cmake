# One image case of kelvane-color.exe, run in a fresh folder WORK:
#   cmake -DTOOL=<command;exe> -DWORK=<dir> -DMODE=read|round_trip|refuse -DINPUT=<image>
#         [-DEXPECTED=<pam>] [-DTYPE=png|tif] [-DBITS=8|16] [-DCHANNELS=3|4] [-DEXPECT=<regex>]
#         -P check_image_file.cmake
# read: INPUT converted to a 16-bit PAM must equal EXPECTED byte for byte.
# round_trip: INPUT written as TYPE at BITS and read back must give the PAM written directly.
# refuse: the conversion fails with exit code 1, a message matching EXPECT, and leaves no file.
file(REMOVE_RECURSE "${WORK}")
file(MAKE_DIRECTORY "${WORK}")
if(NOT DEFINED BITS)
  set(BITS 16)
endif()
if(NOT DEFINED CHANNELS)
  set(CHANNELS 3)
endif()

function(convert input output expect_code out_text)
  execute_process(COMMAND ${TOOL} --bits ${BITS} --channels ${CHANNELS} -o "${output}" "${input}"
                  WORKING_DIRECTORY "${WORK}" RESULT_VARIABLE code OUTPUT_VARIABLE out
                  ERROR_VARIABLE err)
  if(NOT code STREQUAL "${expect_code}")
    message(FATAL_ERROR "${input} -> ${output}: exit code ${code}, expected ${expect_code}:\n"
                        "${out}${err}")
  endif()
  set(${out_text} "${out}${err}" PARENT_SCOPE)
endfunction()

function(same_bytes actual expected)
  file(READ "${actual}" a HEX)
  file(READ "${expected}" e HEX)
  if(NOT a STREQUAL e)
    message(FATAL_ERROR "${actual} differs from ${expected}:\n  got      ${a}\n  expected ${e}")
  endif()
endfunction()

if(MODE STREQUAL "read")
  convert("${INPUT}" "${WORK}/out.pam" 0 text)
  same_bytes("${WORK}/out.pam" "${EXPECTED}")
elseif(MODE STREQUAL "round_trip")
  convert("${INPUT}" "${WORK}/direct.pam" 0 text)
  convert("${INPUT}" "${WORK}/written.${TYPE}" 0 text)
  convert("${WORK}/written.${TYPE}" "${WORK}/back.pam" 0 text)
  same_bytes("${WORK}/back.pam" "${WORK}/direct.pam")
elseif(MODE STREQUAL "refuse")
  get_filename_component(name "${INPUT}" NAME)
  file(COPY "${INPUT}" DESTINATION "${WORK}")
  convert("${name}" "out.png" 1 text)
  string(REPLACE "\n" " " flat "${text}")
  if(NOT flat MATCHES "${EXPECT}")
    message(FATAL_ERROR "message does not match '${EXPECT}':\n${text}")
  endif()
  file(GLOB left RELATIVE "${WORK}" "${WORK}/*" "${WORK}/.*")
  if(NOT left STREQUAL "${name}")
    message(FATAL_ERROR "files left beside the input: ${left}")
  endif()
else()
  message(FATAL_ERROR "MODE must be read, round_trip or refuse")
endif()
message(STATUS "${MODE} ${INPUT}: as expected")
