# Fake companion modules for the library's tests, and the scenario directories that hold them.
# Every variant is built from one source with compile definitions under a name of its own, then
# copied under the real module file name into each scenario directory that uses it. A test picks
# a scenario by putting its directory on the search path (LD_LIBRARY_PATH, or PATH on Windows).
# Included by tests/suite; defines kv_fake_journal and KV_SCENARIO_ROOT.

set(KV_FAKES_DIR "${PROJECT_SOURCE_DIR}/tests/fakes")
set(KV_SCENARIO_ROOT "${PROJECT_BINARY_DIR}/tests/scenarios")
set(KV_FAKE_VARIANT_DIR "${PROJECT_BINARY_DIR}/tests/fake_variants")

add_library(kv_fake_journal SHARED "${KV_FAKES_DIR}/journal.cpp")
target_include_directories(kv_fake_journal PUBLIC "${PROJECT_SOURCE_DIR}")
target_compile_definitions(kv_fake_journal PRIVATE KV_JOURNAL_BUILD)

# kv_fake_variant(<target> <source> <definitions>...)
function(kv_fake_variant target source)
  add_library(${target} MODULE "${KV_FAKES_DIR}/${source}")
  target_include_directories(${target} PRIVATE "${PROJECT_SOURCE_DIR}")
  target_compile_definitions(${target} PRIVATE ${ARGN})
  target_link_libraries(${target} PRIVATE kv_fake_journal)
  set_target_properties(${target} PROPERTIES PREFIX "" LIBRARY_OUTPUT_DIRECTORY
                                             "${KV_FAKE_VARIANT_DIR}")
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND NOT WIN32)
    # Unique symbols would pin the module in memory and hide a missing release.
    target_compile_options(${target} PRIVATE -fno-gnu-unique)
  endif()
endfunction()

kv_fake_variant(fake_logger fake_logger.cpp)
kv_fake_variant(fake_logger_no_qor_log fake_logger.cpp KV_FAKE_OMIT_QOR_LOG)
kv_fake_variant(fake_logger_no_qor_get_log fake_logger.cpp KV_FAKE_OMIT_QOR_GET_LOG)
kv_fake_variant(fake_logger_get_log_null fake_logger.cpp KV_FAKE_GET_LOG_NULL)
kv_fake_variant(fake_logger_no_qor_free_log fake_logger.cpp KV_FAKE_OMIT_QOR_FREE_LOG)

set(KV_FAKE_LUT_ENTRIES INITIALIZE CREATE TRANSFORM_16 GET_DATA DESTROY TERMINATE)
kv_fake_variant(fake_LUT fake_LUT.cpp)
foreach(_entry ${KV_FAKE_LUT_ENTRIES})
  string(TOLOWER ${_entry} _lower)
  kv_fake_variant(fake_LUT_no_${_lower} fake_LUT.cpp KV_FAKE_OMIT_${_entry})
endforeach()

set(KV_FAKE_VECTOR_NAMES INITIALIZE TRANSFORM_8 TRANSFORM_16 TERMINATE)
foreach(_isa sse avx2 avx512)
  kv_fake_variant(fake_vector_${_isa} fake_vector.cpp KV_FAKE_ISA=${_isa})
  foreach(_name ${KV_FAKE_VECTOR_NAMES})
    string(TOLOWER ${_name} _lower)
    kv_fake_variant(fake_vector_${_isa}_no_${_lower} fake_vector.cpp KV_FAKE_ISA=${_isa}
                    KV_FAKE_OMIT_${_name})
  endforeach()
endforeach()

# kv_scenario(<name> [LOGGER <variant>] [LUT <variant>] [SSE <variant>] [AVX2 <variant>]
#             [AVX512 <variant>]): a directory under KV_SCENARIO_ROOT with those modules under
# their real file names. A module left out is absent from the scenario.
set(_kv_file_LOGGER kelvane_qor_logger)
set(_kv_file_LUT kelvane_qor_LUT)
set(_kv_file_SSE kelvane_qor_color_processing_vector_sse)
set(_kv_file_AVX2 kelvane_qor_color_processing_vector_avx2)
set(_kv_file_AVX512 kelvane_qor_color_processing_vector_avx512)
set(KV_SCENARIOS)
function(kv_scenario name)
  cmake_parse_arguments(PARSE_ARGV 1 S "" "LOGGER;LUT;SSE;AVX2;AVX512" "")
  set(_dir "${KV_SCENARIO_ROOT}/${name}")
  set(_outputs "${_dir}/.scenario")
  set(_commands COMMAND "${CMAKE_COMMAND}" -E rm -rf "${_dir}"
                COMMAND "${CMAKE_COMMAND}" -E make_directory "${_dir}")
  set(_depends)
  foreach(_role LOGGER LUT SSE AVX2 AVX512)
    if(S_${_role})
      set(_file "${_dir}/${_kv_file_${_role}}${CMAKE_SHARED_MODULE_SUFFIX}")
      list(APPEND _commands COMMAND "${CMAKE_COMMAND}" -E copy
           "$<TARGET_FILE:${S_${_role}}>" "${_file}")
      list(APPEND _depends ${S_${_role}})
    endif()
  endforeach()
  list(APPEND _commands COMMAND "${CMAKE_COMMAND}" -E touch "${_dir}/.scenario")
  add_custom_command(OUTPUT ${_outputs} ${_commands} DEPENDS ${_depends}
                     COMMENT "Scenario ${name}" VERBATIM)
  add_custom_target(kv_scenario_${name} ALL DEPENDS ${_outputs})
  set(KV_SCENARIOS ${KV_SCENARIOS} ${name} PARENT_SCOPE)
endfunction()

set(_kv_full_vectors SSE fake_vector_sse AVX2 fake_vector_avx2 AVX512 fake_vector_avx512)

kv_scenario(full LOGGER fake_logger LUT fake_LUT ${_kv_full_vectors})
kv_scenario(no_modules)
kv_scenario(no_vector_modules LOGGER fake_logger LUT fake_LUT)
kv_scenario(no_logger LUT fake_LUT ${_kv_full_vectors})
foreach(_variant no_qor_log no_qor_get_log get_log_null no_qor_free_log)
  kv_scenario(logger_${_variant} LOGGER fake_logger_${_variant} LUT fake_LUT ${_kv_full_vectors})
endforeach()
foreach(_entry ${KV_FAKE_LUT_ENTRIES})
  string(TOLOWER ${_entry} _lower)
  kv_scenario(LUT_no_${_lower} LOGGER fake_logger LUT fake_LUT_no_${_lower})
endforeach()
foreach(_name ${KV_FAKE_VECTOR_NAMES})
  string(TOLOWER ${_name} _lower)
  kv_scenario(vector_no_${_lower} LOGGER fake_logger LUT fake_LUT SSE fake_vector_sse_no_${_lower}
              AVX2 fake_vector_avx2_no_${_lower} AVX512 fake_vector_avx512_no_${_lower})
endforeach()
