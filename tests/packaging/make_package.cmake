# Makes the build's packages with CPack into WORK_DIR/out, fails unless exactly the EXPECT files
# (names, ;-separated) came out, and unpacks each into the empty folder WORK_DIR/root, as a user
# would: the archive with CMake's own unzip, the Debian packages with dpkg-deb -x.
# Run with cmake -P and: CPACK BUILD_DIR WORK_DIR GENERATOR (ZIP or DEB) EXPECT.
include("${CMAKE_CURRENT_LIST_DIR}/../install/kv_run.cmake")

file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}/out" "${WORK_DIR}/root")
kv_run(WHAT "cpack -G ${GENERATOR}"
       COMMAND "${CPACK}" -G "${GENERATOR}" --config "${BUILD_DIR}/CPackConfig.cmake"
               -B "${WORK_DIR}/out")

string(TOLOWER "${GENERATOR}" extension)
file(GLOB made RELATIVE "${WORK_DIR}/out" "${WORK_DIR}/out/*.${extension}")
list(SORT made)
list(SORT EXPECT)
if(NOT made STREQUAL EXPECT)
  message(FATAL_ERROR "cpack made\n  ${made}\nand not\n  ${EXPECT}")
endif()

foreach(package IN LISTS made)
  if(GENERATOR STREQUAL "ZIP")
    kv_run(WHAT "unzip ${package}" COMMAND "${CMAKE_COMMAND}" -E chdir "${WORK_DIR}/root"
                                           "${CMAKE_COMMAND}" -E tar xf "../out/${package}")
  else()
    kv_run(WHAT "dpkg-deb -x ${package}"
           COMMAND dpkg-deb -x "${WORK_DIR}/out/${package}" "${WORK_DIR}/root")
  endif()
endforeach()
