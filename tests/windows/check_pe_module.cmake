# Reads the export and import tables of a Windows module with objdump -p and checks them:
#   cmake -DOBJDUMP=<objdump> -DMODULE=<file> -DEXPORTS=<name,name,...> [-DIMPORT_LIBRARY=<file>]
#         [-DALLOWED_IMPORTS=<dll,dll,...>] -P check_pe_module.cmake
# EXPORTS is the exact set of names the module exports, every one by name and undecorated (empty
# for a program). Imports: the module may name only system DLLs and ALLOWED_IMPORTS (our own
# modules are loaded at run time, and the compiler's runtime is linked in). IMPORT_LIBRARY, when
# given, must declare exactly the exported names.

cmake_minimum_required(VERSION 3.25)

# Lists in the message are joined with ", ": a ";" would split the argument.
function(fail)
  string(CONCAT _text ${ARGN})
  message(FATAL_ERROR "${MODULE}: ${_text}")
endfunction()

execute_process(COMMAND "${OBJDUMP}" -p "${MODULE}" OUTPUT_VARIABLE _dump RESULT_VARIABLE _result
                ERROR_VARIABLE _error)
if(NOT _result EQUAL 0)
  fail("objdump failed: ${_error}")
endif()
# Only the headers and the import and export tables: the unwind tables that follow run to a
# million lines for the main library.
string(FIND "${_dump}" "\nThe Function Table" _end)
if(_end GREATER 0)
  string(SUBSTRING "${_dump}" 0 ${_end} _dump)
endif()
string(REPLACE ";" "," _dump "${_dump}")
string(REGEX REPLACE "\r?\n" ";" _lines "${_dump}")

string(REPLACE "," ";" _expected "${EXPORTS}")
list(SORT _expected)
string(REPLACE "," ";" _allowed "${ALLOWED_IMPORTS}")

set(_names)
set(_imports)
set(_in_names OFF)
set(_address_count none)
set(_name_count none)
foreach(_line IN LISTS _lines)
  if(_line MATCHES "^\\[Ordinal/Name Pointer\\] Table")
    set(_in_names ON)
  elseif(_in_names AND _line MATCHES "^\t\\[ *[0-9]+\\] (.+)$")
    list(APPEND _names "${CMAKE_MATCH_1}")
  elseif(_in_names)
    set(_in_names OFF)
  endif()
  # The counts come first ("Number in:"); the table addresses below them have the same labels.
  if(_address_count STREQUAL "none" AND _line MATCHES "^\tExport Address Table[ \t]+([0-9a-fA-F]+)$")
    math(EXPR _address_count "0x${CMAKE_MATCH_1}")
  elseif(_name_count STREQUAL "none" AND
         _line MATCHES "^\t\\[Name Pointer/Ordinal\\] Table[ \t]+([0-9a-fA-F]+)$")
    math(EXPR _name_count "0x${CMAKE_MATCH_1}")
  elseif(_line MATCHES "^\tDLL Name: (.+)$")
    list(APPEND _imports "${CMAKE_MATCH_1}")
  endif()
endforeach()

list(SORT _names)
if(NOT "${_names}" STREQUAL "${_expected}")
  set(_extra ${_names})
  set(_missing ${_expected})
  if(_expected)
    list(REMOVE_ITEM _extra ${_expected})
  endif()
  if(_names)
    list(REMOVE_ITEM _missing ${_names})
  endif()
  list(LENGTH _names _n)
  list(JOIN _extra ", " _extra)
  list(JOIN _missing ", " _missing)
  fail("${_n} names exported. Exported by accident: [${_extra}]. Not exported: [${_missing}]")
endif()
list(LENGTH _names _n)
if(_address_count STREQUAL "none")  # no export table at all
  set(_address_count 0)
  set(_name_count 0)
endif()
if(NOT _address_count EQUAL _n OR NOT _name_count EQUAL _n)
  fail("${_address_count} export addresses and ${_name_count} names for ${_n} exports: "
       "an export without a name (ordinal only) or a name table that objdump did not show")
endif()

# A host deploys our DLLs and nothing else: no MinGW runtime DLL, none of our modules linked.
foreach(_dll IN LISTS _imports)
  string(TOLOWER "${_dll}" _lower)
  if(_dll IN_LIST _allowed)
    continue()
  endif()
  if(_lower MATCHES "^lib|kelvane")
    fail("imports ${_dll}")
  endif()
endforeach()

if(IMPORT_LIBRARY)
  execute_process(COMMAND "${OBJDUMP}" -t "${IMPORT_LIBRARY}" OUTPUT_VARIABLE _symbols
                  RESULT_VARIABLE _result ERROR_VARIABLE _error)
  if(NOT _result EQUAL 0)
    fail("objdump -t ${IMPORT_LIBRARY} failed: ${_error}")
  endif()
  string(REGEX MATCHALL "__imp_[A-Za-z0-9_@]+" _declared "${_symbols}")
  list(TRANSFORM _declared REPLACE "^__imp_" "")
  list(REMOVE_DUPLICATES _declared)
  list(SORT _declared)
  if(NOT "${_declared}" STREQUAL "${_expected}")
    list(JOIN _declared ", " _declared)
    fail("the import library ${IMPORT_LIBRARY} declares [${_declared}]")
  endif()
endif()
message(STATUS "${MODULE}: ${_n} exports by name, imports [${_imports}]")
