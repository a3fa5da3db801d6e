# The Windows archive, unpacked into ROOT: our DLLs and kelvane-color.exe in bin/ with the project
# version in their version resources, every DLL they import either beside them in bin/ or one of
# Windows' own, both import libraries and the CMake package in lib/, the headers, the
# documentation and a non-empty licence text for each bundled dependency.
# Run with cmake -P and: ROOT VERSION OBJDUMP STRINGS.
set(ours kelvane_qor_color_processing.dll kelvane_qor_LUT.dll kelvane_qor_logger.dll
         kelvane_qor_color_processing_vector_sse.dll kelvane_qor_color_processing_vector_avx2.dll
         kelvane_qor_color_processing_vector_avx512.dll kelvane-color.exe)
set(required include/kelvane_qor_color_processing.h include/kelvane_qor_color_processing.hpp
             lib/kelvane_qor_color_processing.lib lib/libkelvane_qor_color_processing.dll.a
             lib/cmake/kelvane_qor_color_processing/kelvane_qor_color_processingConfig.cmake
             lib/pkgconfig/kelvane_qor_color_processing.pc doc/README.md
             lib/python3/dist-packages/kelvane_color/__init__.py)
# With the colour layer: its DLL, both its import libraries and its headers.
if(EXISTS "${ROOT}/bin/kelvane_qor_color.dll")
  list(APPEND ours kelvane_qor_color.dll)
  list(APPEND required lib/kelvane_qor_color.lib lib/libkelvane_qor_color.dll.a
                       include/kelvane_qor_color.h include/kelvane_qor_color.hpp)
endif()
foreach(file IN LISTS ours)
  list(APPEND required "bin/${file}")
endforeach()
foreach(file IN LISTS required)
  if(NOT EXISTS "${ROOT}/${file}")
    message(FATAL_ERROR "the archive has no ${file}")
  endif()
endforeach()

# Version resources are UTF-16 strings: each key is followed by its value.
foreach(file IN LISTS ours)
  execute_process(COMMAND "${STRINGS}" -el "${ROOT}/bin/${file}" OUTPUT_VARIABLE texts)
  foreach(key_value "FileVersion\n${VERSION}\n" "ProductVersion\n${VERSION}\n"
                    "OriginalFilename\n${file}\n")
    string(FIND "${texts}" "${key_value}" at)
    if(at LESS 0)
      string(REPLACE "\n" " " key_value "${key_value}")
      message(FATAL_ERROR "${file}: its version resource lacks ${key_value}")
    endif()
  endforeach()
endforeach()

# A DLL named lib* or kelvane* is a compiler runtime or one of ours: it must be in bin/.
file(GLOB binaries RELATIVE "${ROOT}/bin" "${ROOT}/bin/*.dll" "${ROOT}/bin/*.exe")
foreach(file IN LISTS binaries)
  execute_process(COMMAND "${OBJDUMP}" -p "${ROOT}/bin/${file}" OUTPUT_VARIABLE dump)
  string(REGEX MATCHALL "DLL Name: [^\n]+" imports "${dump}")
  foreach(import IN LISTS imports)
    string(REGEX REPLACE "^DLL Name: " "" import "${import}")
    string(TOLOWER "${import}" lower)
    if(lower MATCHES "^(lib|kelvane)" AND NOT EXISTS "${ROOT}/bin/${import}")
      message(FATAL_ERROR "${file} imports ${import}, which the archive does not hold")
    endif()
  endforeach()
endforeach()

file(GLOB licences "${ROOT}/licenses/*/*")
if(NOT licences)
  message(FATAL_ERROR "the archive holds no licence texts of its bundled runtime")
endif()
foreach(licence IN LISTS licences)
  file(SIZE "${licence}" size)
  if(size LESS 100)
    message(FATAL_ERROR "${licence} is empty or nearly")
  endif()
endforeach()
message(STATUS "archive checked: ${binaries}")
