# KV_PYTHON: a Python 3 interpreter with numpy and pytest, for the tests of the Python package and
# the install test. Set it to choose one; otherwise the first of /usr/bin/python3 (Debian's, which
# has python3-numpy and python3-pytest), the interpreter find_package(Python3) found, and python3
# on PATH that imports both. Empty when none does: those tests are then left out, with a warning,
# and the next configure looks again.
if(NOT KV_PYTHON)
  find_package(Python3 QUIET COMPONENTS Interpreter)
  find_program(_kv_path_python3 NAMES python3 NO_CACHE)
  set(_kv_found "")
  foreach(_kv_candidate /usr/bin/python3 "${Python3_EXECUTABLE}" "${_kv_path_python3}")
    if(_kv_candidate AND EXISTS "${_kv_candidate}")
      execute_process(COMMAND "${_kv_candidate}" -c "import numpy, pytest"
                      RESULT_VARIABLE _kv_code OUTPUT_QUIET ERROR_QUIET)
      if(_kv_code EQUAL 0)
        set(_kv_found "${_kv_candidate}")
        break()
      endif()
    endif()
  endforeach()
  set(KV_PYTHON "${_kv_found}" CACHE FILEPATH "Python 3 with numpy and pytest, for the Python tests"
      FORCE)
  if(NOT KV_PYTHON)
    message(WARNING "no Python 3 with numpy and pytest (Debian: python3-numpy python3-pytest): "
                    "the Python package's tests are left out")
  endif()
endif()
