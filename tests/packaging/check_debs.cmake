# The Debian packages in OUT_DIR: each at VERSION; every shared library an ELF file of a package
# needs is provided by a package its Depends names (one of ours, or the system package dpkg -S
# names for it); the library package declares its soname in shlibs; no file is in two packages;
# and apt accepts them all for installation on this machine (--simulate: nothing is installed).
# Run with cmake -P and: OUT_DIR VERSION READELF.
file(GLOB debs "${OUT_DIR}/*.deb")
set(check_dir "${OUT_DIR}/../depends")
file(REMOVE_RECURSE "${check_dir}")

# First pass: names and files of our packages, so a need for one of our libraries is known.
foreach(deb IN LISTS debs)
  execute_process(COMMAND dpkg-deb -f "${deb}" Package OUTPUT_VARIABLE package
                  OUTPUT_STRIP_TRAILING_WHITESPACE)
  execute_process(COMMAND dpkg-deb -x "${deb}" "${check_dir}/${package}" COMMAND_ERROR_IS_FATAL ANY)
  file(GLOB_RECURSE files LIST_DIRECTORIES false RELATIVE "${check_dir}/${package}"
       "${check_dir}/${package}/*")
  foreach(file IN LISTS files)
    get_filename_component(name "${file}" NAME)
    if(DEFINED owner_${name} AND NOT name STREQUAL "copyright")
      message(FATAL_ERROR "${file} is in ${owner_${name}} and in ${package}")
    endif()
    set(owner_${name} ${package})
  endforeach()
  list(APPEND packages ${package})
  set(files_${package} ${files})
  set(deb_${package} "${deb}")
endforeach()

# kv_providers(<soname> <out>): the packages that hold a library of that name.
function(kv_providers soname out)
  if(DEFINED owner_${soname})
    set(${out} ${owner_${soname}} PARENT_SCOPE)
    return()
  endif()
  execute_process(COMMAND dpkg -S "*/${soname}" OUTPUT_VARIABLE found ERROR_QUIET)
  string(REGEX MATCHALL "[^\n]+: /[^\n]*/${soname}(\n|$)" lines "${found}")
  set(names)
  foreach(line IN LISTS lines) # "libc6:amd64, libc6-dbg: /path"
    string(REGEX REPLACE ": /.*" "" line "${line}")
    string(REPLACE ", " ";" line "${line}")
    list(TRANSFORM line REPLACE ":.*" "")
    list(APPEND names ${line})
  endforeach()
  set(${out} ${names} PARENT_SCOPE)
endfunction()

foreach(package IN LISTS packages)
  execute_process(COMMAND dpkg-deb -f "${deb_${package}}" Version Depends OUTPUT_VARIABLE fields)
  if(NOT fields MATCHES "Version: ${VERSION}\n")
    message(FATAL_ERROR "${package}: not at version ${VERSION}:\n${fields}")
  endif()
  string(REGEX MATCH "Depends: [^\n]*" depends "${fields}")
  string(REGEX REPLACE "^Depends: " "" depends "${depends}")
  string(REGEX MATCHALL "[a-z0-9][a-z0-9.+-]+( [(][^)]*[)])?" depends "${depends}")
  list(TRANSFORM depends REPLACE " .*" "")
  foreach(file IN LISTS files_${package})
    execute_process(COMMAND "${READELF}" -d "${check_dir}/${package}/${file}"
                    OUTPUT_VARIABLE dynamic ERROR_QUIET)
    string(REGEX MATCHALL "\\(NEEDED\\)[^\n]*\\[[^]]+\\]" needs "${dynamic}")
    foreach(need IN LISTS needs)
      string(REGEX REPLACE ".*\\[([^]]+)\\]" "\\1" need "${need}")
      kv_providers("${need}" providers)
      set(named OFF)
      foreach(provider IN LISTS providers)
        if(provider IN_LIST depends OR provider STREQUAL package)
          set(named ON)
        endif()
      endforeach()
      if(NOT named)
        message(FATAL_ERROR "${package}: ${file} needs ${need}, provided by "
                            "'${providers}', and Depends names none of them: ${depends}")
      endif()
    endforeach()
  endforeach()
  message(STATUS "${package}: Depends ${depends}")
endforeach()

list(FILTER packages INCLUDE REGEX "^lib[^-].*[0-9]$")
execute_process(COMMAND dpkg-deb -I "${deb_${packages}}" shlibs OUTPUT_VARIABLE shlibs)
if(NOT shlibs MATCHES "^libkelvane_qor_color_processing [0-9]+ ${packages} [(]>= ${VERSION}[)]")
  message(FATAL_ERROR "${packages}: shlibs should declare the library's soname: '${shlibs}'")
endif()

find_program(APT_GET apt-get)
if(APT_GET)
  execute_process(COMMAND "${APT_GET}" install --simulate --no-install-recommends ${debs}
                  RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT code EQUAL 0)
    message(FATAL_ERROR "apt-get install --simulate refuses the packages:\n${out}\n${err}")
  endif()
  message(STATUS "apt-get install --simulate:\n${out}")
endif()
