# A Visual Studio host's view of the Windows archive unpacked in ROOT: the CMake project in
# HOST_DIR configured with an MSVC-ABI toolchain (clang for x86_64-pc-windows-msvc, lld-link),
# which must get kelvane_qor_color_processing.lib from the archive's CMake package; the program is
# put beside the DLLs in bin/ and run under Wine from an empty folder.
# Run with cmake -P and: ROOT WORK_DIR HOST_DIR CLANG LLD_LINK DLLTOOL WINE GENERATOR.
include("${CMAKE_CURRENT_LIST_DIR}/../install/kv_run.cmake")

file(REMOVE_RECURSE "${WORK_DIR}")
set(color_layer)
if(EXISTS "${ROOT}/bin/kelvane_qor_color.dll")
  set(color_layer "-DKV_COLOR_LAYER_LIBRARY=${ROOT}/lib/kelvane_qor_color.lib")
endif()
file(MAKE_DIRECTORY "${WORK_DIR}/empty")
kv_run(WHAT "configure the host with an MSVC-ABI toolchain"
       COMMAND "${CMAKE_COMMAND}" -S "${HOST_DIR}" -B "${WORK_DIR}/build" -G "${GENERATOR}"
               "-DCMAKE_TOOLCHAIN_FILE=${HOST_DIR}/msvc_abi.cmake" -DCMAKE_BUILD_TYPE=Release
               "-DKV_CLANG=${CLANG}" "-DKV_LLD_LINK=${LLD_LINK}" "-DKV_DLLTOOL=${DLLTOOL}"
               "-DCMAKE_PREFIX_PATH=${ROOT}" ${color_layer})
kv_run(WHAT "build the host" COMMAND "${CMAKE_COMMAND}" --build "${WORK_DIR}/build")
file(READ "${WORK_DIR}/build/linked_import_library.txt" linked)
if(NOT linked STREQUAL "${ROOT}/lib/kelvane_qor_color_processing.lib")
  message(FATAL_ERROR "the CMake package gave the MSVC-ABI host ${linked}")
endif()

set(host "${ROOT}/bin/kv_msvc_host.exe")
file(COPY_FILE "${WORK_DIR}/build/kv_msvc_host.exe" "${host}")
kv_run(WHAT "run the host under Wine" OUTPUT out
       COMMAND "${CMAKE_COMMAND}" -E chdir "${WORK_DIR}/empty" ${WINE} "${host}")
file(REMOVE "${host}")
if(NOT out MATCHES "tier 3: 4 transforms checked.*msvc host: all checked")
  message(FATAL_ERROR "the host did not report every tier checked:\n${out}")
endif()
if(color_layer AND NOT out MATCHES "msvc host: colour layer checked")
  message(FATAL_ERROR "the host did not report the colour layer checked:\n${out}")
endif()
