# Settings every target of the project shares: language level, warnings, floating point, ccache.

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

option(KV_WERROR "Treat warnings as errors" OFF)

if(MSVC)
  # Exact single-precision arithmetic: no contraction, no reassociation.
  add_compile_options(/W4 /fp:precise /permissive- /Zc:__cplusplus)
  # The code uses the standard C functions (fopen, strerror, gmtime, ...) on purpose; the CRT's
  # advice to use its own _s variants (warning C4996) would stop a /WX build.
  add_compile_definitions(_CRT_SECURE_NO_WARNINGS)
  if(KV_WERROR)
    add_compile_options(/WX)
  endif()
else()
  # Never fuse a multiply and an add: results must match bit for bit on every path.
  add_compile_options(-Wall -Wextra -ffp-contract=off -fno-fast-math)
  if(KV_WERROR)
    add_compile_options(-Werror)
  endif()
endif()

# ccache, with paths made relative to the source tree so that another clone on this machine (CI
# builds a fresh one) reuses the kernel objects.
find_program(KV_CCACHE ccache)
if(KV_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(_kv_launcher "${CMAKE_COMMAND}" -E env "CCACHE_BASEDIR=${PROJECT_SOURCE_DIR}"
                   "CCACHE_NOHASHDIR=1" "${KV_CCACHE}")
  set(CMAKE_C_COMPILER_LAUNCHER ${_kv_launcher})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${_kv_launcher})
endif()

# KV_SANITIZE=ON (the asan preset) builds every target with AddressSanitizer and
# UndefinedBehaviorSanitizer. The flags go in front of any the user gives, in the order the kernel
# objects in ccache were built with (a build folder configured by an older preset may hold them
# already: they are not added twice). Checks that cannot work on instrumented code (the
# disassembly check of the kernel loops) ask this option, never the flags.
option(KV_SANITIZE "Build with AddressSanitizer and UndefinedBehaviorSanitizer" OFF)
if(KV_SANITIZE)
  if(MSVC)
    message(FATAL_ERROR "KV_SANITIZE needs GCC or Clang")
  endif()
  set(_kv_sanitize "-fsanitize=address,undefined")
  set(_kv_compile "${_kv_sanitize} -fno-sanitize-recover=all -fno-omit-frame-pointer")
  foreach(_kv_variable C_FLAGS CXX_FLAGS EXE_LINKER_FLAGS SHARED_LINKER_FLAGS MODULE_LINKER_FLAGS)
    set(_kv_flags "${_kv_compile}")
    if(_kv_variable MATCHES "LINKER")
      set(_kv_flags "${_kv_sanitize}")
    endif()
    string(FIND " ${CMAKE_${_kv_variable}} " " ${_kv_flags} " _kv_at)
    if(_kv_at EQUAL -1)
      set(CMAKE_${_kv_variable} "${_kv_flags} ${CMAKE_${_kv_variable}}")
    endif()
  endforeach()
endif()
