# Installs the build into a fresh prefix, checks the library's file names and soname and that each
# module is there once, beside the library; builds the C host against it twice, through the CMake
# package and through pkg-config, then runs both, the installed kelvane-color, a transform through
# the installed Python package, and the host once more with dlopen intercepted by a preloaded
# library.
# Run with cmake -P and: BUILD_DIR WORK_DIR HOST_DIR C_COMPILER C_FLAGS LINKER_FLAGS GENERATOR
# PKG_CONFIG VERSION READELF PYTHON (empty: no Python check) PYTHON_DIR, CXX_COMPILER and CPP_EXAMPLE for
# the C++ example, SHIM_SOURCE and BROKEN_LUT_DIR (a folder whose LUT module lacks an entry point);
# PREFIX, when given, names a tree installed already, which is checked instead of a fresh install.

include("${CMAKE_CURRENT_LIST_DIR}/kv_run.cmake")

file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}")
if(PREFIX)
  set(prefix "${PREFIX}") # an install made another way: the Debian packages, unpacked
else()
  set(prefix "${WORK_DIR}/prefix")
  foreach(component library development tool python color)
    kv_run(WHAT "install ${component}"
           COMMAND "${CMAKE_COMMAND}" --install "${BUILD_DIR}" --prefix "${prefix}"
                   --component ${component})
  endforeach()
endif()

file(GLOB_RECURSE library "${prefix}/*/libkelvane_qor_color_processing.so")
file(GLOB_RECURSE pc_file "${prefix}/*/kelvane_qor_color_processing.pc")
file(GLOB_RECURSE config "${prefix}/*/kelvane_qor_color_processingConfig.cmake")
foreach(required library pc_file config)
  if(NOT ${required})
    message(FATAL_ERROR "the install has no ${required}")
  endif()
endforeach()
if(NOT EXISTS "${prefix}/include/kelvane_qor_color_processing.h")
  message(FATAL_ERROR "the install has no header")
endif()
get_filename_component(libdir "${library}" DIRECTORY)
get_filename_component(pc_dir "${pc_file}" DIRECTORY)

# The shared-library conventions: .so -> .so.0 (the soname) -> .so.0.<minor>.<patch>.
string(REGEX MATCH "^[0-9]+" major "${VERSION}")
set(name "libkelvane_qor_color_processing")
foreach(link_target ".so:.so.${major}" ".so.${major}:.so.${VERSION}")
  string(REPLACE ":" ";" link_target "${link_target}")
  list(GET link_target 0 link)
  list(GET link_target 1 target)
  set(points_to "(not a link)")
  if(IS_SYMLINK "${libdir}/${name}${link}")
    file(READ_SYMLINK "${libdir}/${name}${link}" points_to)
  endif()
  if(NOT points_to STREQUAL "${name}${target}")
    message(FATAL_ERROR "${libdir}/${name}${link} should link to ${name}${target}: ${points_to}")
  endif()
endforeach()
set(real_file "${libdir}/${name}.so.${VERSION}")
if(IS_SYMLINK "${real_file}" OR NOT EXISTS "${real_file}")
  message(FATAL_ERROR "${real_file} should be the library itself")
endif()
execute_process(COMMAND "${READELF}" -d "${real_file}" OUTPUT_VARIABLE dynamic)
if(NOT dynamic MATCHES "\\(SONAME\\)[^\n]*\\[${name}[.]so[.]${major}\\]")
  message(FATAL_ERROR "readelf -d shows no soname ${name}.so.${major}:\n${dynamic}")
endif()

# Each module once in the whole install, beside the library, under its bare name.
foreach(module kelvane_qor_LUT kelvane_qor_logger kelvane_qor_color_processing_vector_sse
               kelvane_qor_color_processing_vector_avx2 kelvane_qor_color_processing_vector_avx512)
  file(GLOB_RECURSE copies "${prefix}/*${module}.so*")
  if(NOT copies STREQUAL "${libdir}/${module}.so")
    message(FATAL_ERROR "${module}.so should be installed once, beside the library: ${copies}")
  endif()
endforeach()

# The hosts find the modules through the library's RUNPATH alone.
set(run_env "${CMAKE_COMMAND}" -E env --unset=LD_LIBRARY_PATH)

# 1. find_package
kv_run(WHAT "configure the CMake host"
       COMMAND "${CMAKE_COMMAND}" -S "${HOST_DIR}" -B "${WORK_DIR}/cmake-host" -G "${GENERATOR}"
               "-DCMAKE_PREFIX_PATH=${prefix}" "-DCMAKE_C_COMPILER=${C_COMPILER}"
               "-DCMAKE_C_FLAGS=${C_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${LINKER_FLAGS}")
kv_run(WHAT "build the CMake host" COMMAND "${CMAKE_COMMAND}" --build "${WORK_DIR}/cmake-host")
kv_run(WHAT "run the CMake host" COMMAND ${run_env} "${WORK_DIR}/cmake-host/host")

# 2. pkg-config and the compiler alone
execute_process(COMMAND "${CMAKE_COMMAND}" -E env "PKG_CONFIG_PATH=${pc_dir}"
                        "${PKG_CONFIG}" --cflags --libs kelvane_qor_color_processing
                RESULT_VARIABLE code OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT code EQUAL 0)
  message(FATAL_ERROR "pkg-config does not know kelvane_qor_color_processing")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
separate_arguments(c_flags UNIX_COMMAND "${C_FLAGS} ${LINKER_FLAGS}")
kv_run(WHAT "build the pkg-config host"
       COMMAND "${C_COMPILER}" ${c_flags} "${HOST_DIR}/host.c"
               "${HOST_DIR}/../../suite/c_header_test.c" ${flags} "-Wl,-rpath,${libdir}"
               -o "${WORK_DIR}/pkg-config-host")
kv_run(WHAT "run the pkg-config host" COMMAND ${run_env} "${WORK_DIR}/pkg-config-host")

# 2b. The C++ interface, header-only over the same library (CXX_COMPILER given): the documented
#     C++ example, which checks its own pixels and links threads, built against the install.
if(CXX_COMPILER)
  if(NOT EXISTS "${prefix}/include/kelvane_qor_color_processing.hpp")
    message(FATAL_ERROR "the install has no C++ header")
  endif()
  kv_run(WHAT "build the C++ example as a pkg-config host"
         COMMAND "${CXX_COMPILER}" -std=c++17 -pthread ${c_flags} "${CPP_EXAMPLE}" ${flags}
                 "-Wl,-rpath,${libdir}" -o "${WORK_DIR}/pkg-config-host-cpp")
  kv_run(WHAT "run the C++ example as a pkg-config host"
         COMMAND ${run_env} "${WORK_DIR}/pkg-config-host-cpp")
endif()

# 3. The installed tool finds the library through its own RUNPATH.
kv_run(WHAT "run the installed kelvane-color"
       COMMAND ${run_env} "${prefix}/bin/kelvane-color" --chart-size 64x32 -o
               "${WORK_DIR}/chart.ppm")

# 4. The installed Python package finds the library of its own install, with nothing but the
#    prefix's Python folder on PYTHONPATH.
if(PYTHON)
  kv_run(WHAT "transform through the installed Python package"
         COMMAND ${run_env} --unset=KELVANE_COLOR_LIBRARY "PYTHONPATH=${prefix}/${PYTHON_DIR}"
                 "${PYTHON}" -c "
import numpy as np, kelvane_color as kc
with kc.Session(), kc.Processor(16, 8) as p:
    p.append_matrix([[0, 0, 1], [0, 1, 0], [1, 0, 0]])
    p.output_luts[0][:] = np.arange(256) * 2
    p.enable_output_luts(blue=True)
    out = p.transform(np.array([[[100, 200, 7]]], np.uint16), bits=8, clamp=(0, 255))
assert out.tolist() == [[[14, 200, 100]]], out
import os
assert os.path.samefile(kc.library_path(), '${libdir}/libkelvane_qor_color_processing.so.0')")
endif()

# 5. A preloaded library that takes dlopen and forwards it hides the library's RUNPATH from the
#    dynamic loader, as sanitizers do: the library must still find the modules beside it, and a
#    folder on LD_LIBRARY_PATH must still come first (its LUT module lacks an entry point, so the
#    host cannot start). A sanitizer runtime must then accept not being first in the list.
kv_run(WHAT "build the dlopen shim"
       COMMAND "${C_COMPILER}" -shared -fPIC "${SHIM_SOURCE}" -o "${WORK_DIR}/dlopen_shim.so" -ldl)
set(shim_env "${CMAKE_COMMAND}" -E env "LD_PRELOAD=${WORK_DIR}/dlopen_shim.so"
             "ASAN_OPTIONS=$ENV{ASAN_OPTIONS}:verify_asan_link_order=0")
kv_run(WHAT "run the CMake host with dlopen intercepted"
       COMMAND ${shim_env} --unset=LD_LIBRARY_PATH "${WORK_DIR}/cmake-host/host")
kv_run(WHAT "run it with LD_LIBRARY_PATH naming a broken LUT module" EXPECT 2
       COMMAND ${shim_env} "LD_LIBRARY_PATH=${BROKEN_LUT_DIR}" "${WORK_DIR}/cmake-host/host")
