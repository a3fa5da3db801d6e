# The scalar engine: the dispatch tree and its 62,208 pixel kernels, spread over one translation
# unit per level 3 node (96 of them, 648 kernels each). The units are written at configure time and
# rewritten only when their text changes, so incremental builds leave them alone.

set(_kv_units)
# Settings 1 to 6 of the tree (width, input format, three input LUTs, blue output LUT): 2*3*2*2*2*2.
foreach(KV_LEVEL3_CODE RANGE 0 95)
  string(LENGTH "${KV_LEVEL3_CODE}" _len)
  set(_name "${KV_LEVEL3_CODE}")
  if(_len EQUAL 1)
    set(_name "0${_name}")
  endif()
  set(_unit "${PROJECT_BINARY_DIR}/kernels/kernel_unit_${_name}.cpp")
  configure_file("${PROJECT_SOURCE_DIR}/kernels/kernel_unit.cpp.in" "${_unit}" @ONLY)
  list(APPEND _kv_units "${_unit}")
endforeach()

add_library(kv_kernels STATIC
  kernels/dispatch.cpp
  ${_kv_units})
target_include_directories(kv_kernels PUBLIC "${PROJECT_SOURCE_DIR}")
# One pixel at a time with scalar arithmetic: the vector modules are the fast path, and keeping the
# loops scalar keeps both the build and the code size in check.
if(NOT MSVC)
  target_compile_options(kv_kernels PRIVATE -fno-tree-vectorize)
endif()

# Under the sanitizer preset the kernel units keep AddressSanitizer's checks of every load and store
# but drop the undefined-behaviour checks, debug info, use-after-scope poisoning and -O2: with them
# each unit takes minutes to compile, and the kernels' arithmetic (masked shifts, conversions
# through the intrinsic) and scalar locals leave nothing for those checks to find. At -O1 a unit
# compiles in 12 s instead of 29, and the arithmetic is the same (no contraction, no fast math).
# Their callers, the dispatch entries and every test stay fully instrumented.
if(KV_SANITIZE)
  set_source_files_properties(${_kv_units} PROPERTIES COMPILE_OPTIONS
    "-fno-sanitize=undefined;-g0;-O1;-fno-sanitize-address-use-after-scope")
endif()
