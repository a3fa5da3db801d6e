# A Visual Studio toolchain without Visual Studio: clang for x86_64-pc-windows-msvc and lld-link,
# no C runtime and no Windows SDK (the host brings its entry point; kernel32.lib is written from
# kernel32.def). CMake sees an MSVC-ABI compiler, as with cl or clang-cl.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)
set(CMAKE_C_COMPILER "${KV_CLANG}")
set(CMAKE_C_COMPILER_TARGET x86_64-pc-windows-msvc)
set(CMAKE_LINKER "${KV_LLD_LINK}")
# No C runtime to link a test program with.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
set(CMAKE_C_FLAGS_INIT "-ffreestanding -fno-builtin")
set(CMAKE_EXE_LINKER_FLAGS_INIT
    "-fuse-ld=lld -nostdlib -Wl,/entry:kv_host_start,/subsystem:console,/nodefaultlib")
set(CMAKE_C_STANDARD_LIBRARIES "" CACHE STRING "No Windows SDK libraries")
