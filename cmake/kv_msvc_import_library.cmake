# The MSVC import library of a MinGW-built kelvane_qor_color_processing.dll:
# kelvane_qor_color_processing.lib, made by llvm-dlltool from the library's own .def (written from
# exports.list), so it names exactly the nineteen exports. The DLL imports only KERNEL32.dll and
# msvcrt.dll, so Visual Studio hosts use the same file as MinGW hosts; the CMake package picks
# the import library that fits the consumer's toolchain. An MSVC build makes its own .lib.
if(NOT WIN32 OR MSVC)
  return()
endif()

find_program(KV_LLVM_DLLTOOL NAMES llvm-dlltool llvm-dlltool-16 llvm-dlltool-15 llvm-dlltool-14
             DOC "llvm-dlltool, which writes the MSVC import library (Debian package llvm)")
if(NOT KV_LLVM_DLLTOOL)
  message(WARNING "llvm-dlltool not found (Debian package llvm): no MSVC import library "
                  "kelvane_qor_color_processing.lib is made, and Visual Studio hosts cannot link")
  return()
endif()

get_target_property(_kv_sources kelvane_qor_color_processing SOURCES)
list(FILTER _kv_sources INCLUDE REGEX "[.]def$")
if(NOT _kv_sources MATCHES "^[^;]+$")
  message(FATAL_ERROR "kelvane_qor_color_processing should have one .def file: ${_kv_sources}")
endif()
set(KV_MSVC_IMPORT_LIBRARY
    "${PROJECT_BINARY_DIR}/kelvane_qor_color_processing_suite/kelvane_qor_color_processing.lib")
add_custom_command(OUTPUT "${KV_MSVC_IMPORT_LIBRARY}"
  COMMAND "${KV_LLVM_DLLTOOL}" -m i386:x86-64 -d "${_kv_sources}"
          -D "$<TARGET_FILE_NAME:kelvane_qor_color_processing>" -l "${KV_MSVC_IMPORT_LIBRARY}"
  DEPENDS "${_kv_sources}"
  COMMENT "Writing the MSVC import library kelvane_qor_color_processing.lib" VERBATIM)
add_custom_target(kv_msvc_import_library ALL DEPENDS "${KV_MSVC_IMPORT_LIBRARY}")
install(FILES "${KV_MSVC_IMPORT_LIBRARY}" DESTINATION "${CMAKE_INSTALL_LIBDIR}"
        COMPONENT development)

# The colour layer's the same way, from the .def its link writes (cmake/kv_color.cmake): a host
# links kelvane_qor_color.lib beside kelvane_qor_color_processing.lib for the colour C ABI.
if(TARGET kelvane_qor_color AND KV_COLOR_LAYER_DEF)
  set(_kv_color_lib "$<TARGET_FILE_DIR:kelvane_qor_color>/kelvane_qor_color.lib")
  add_custom_command(TARGET kelvane_qor_color POST_BUILD
    COMMAND "${KV_LLVM_DLLTOOL}" -m i386:x86-64 -d "${KV_COLOR_LAYER_DEF}"
            -D "$<TARGET_FILE_NAME:kelvane_qor_color>" -l "${_kv_color_lib}"
    BYPRODUCTS "${PROJECT_BINARY_DIR}/kelvane_qor_color.lib"
    COMMENT "Writing the MSVC import library kelvane_qor_color.lib" VERBATIM)
  install(FILES "${_kv_color_lib}" DESTINATION "${CMAKE_INSTALL_LIBDIR}"
          COMPONENT color_development)
endif()
