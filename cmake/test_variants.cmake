# The builds of the library that tests run on beside the one that the loader takes: the levels of x86-64 that a package
# holds, and those with sanitizers.

# Whether this machine has the instructions of a level of x86-64, by the dynamic loader's word.
function(vek_runs_here level answer)
  execute_process(COMMAND /lib64/ld-linux-x86-64.so.2 --help OUTPUT_VARIABLE loader ERROR_QUIET)
  string(FIND "${loader}" "${level} (supported" found)
  if(found EQUAL -1)
    set(${answer} OFF PARENT_SCOPE)
  else()
    set(${answer} ON PARENT_SCOPE)
  endif()
endfunction()

# By name, its file and the environment in which the loader takes it. The baseline has a folder of its own, for in that
# of the build the loader would take a level's variant.
set(VEK_VARIANTS ${VEK_LEVELS})
if(VEK_LEVELS)
  set(VEK_VARIANTS x86-64 ${VEK_LEVELS})
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/baseline)
  file(CREATE_LINK ../libvekcustom.so ${PROJECT_BINARY_DIR}/baseline/libvekcustom.so SYMBOLIC)
endif()
foreach(variant IN LISTS VEK_VARIANTS)
  set(folder ${PROJECT_BINARY_DIR}/glibc-hwcaps/${variant})
  vek_runs_here(${variant} VEK_RUNS_${variant})
  if(variant STREQUAL "x86-64")
    set(folder ${PROJECT_BINARY_DIR}/baseline)
    set(VEK_RUNS_${variant} ON)
  endif()
  set(VEK_LIBRARY_OF_${variant} ${folder}/libvekcustom.so)
  set(VEK_ENVIRONMENT_OF_${variant} LD_LIBRARY_PATH=${folder})
endforeach()
foreach(variant IN LISTS VEK_SANITIZED)
  # The runtime of a sanitizer has to be there before a program that is not instrumented itself.
  string(SUBSTRING ${variant} 0 1 initial)
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=lib${initial}san.so
    OUTPUT_VARIABLE runtime OUTPUT_STRIP_TRAILING_WHITESPACE)
  set(VEK_ENVIRONMENT_OF_${variant} LD_LIBRARY_PATH=${PROJECT_BINARY_DIR}/sanitized/${variant};LD_PRELOAD=${runtime})
  set(VEK_RUNS_${variant} ON)
endforeach()

# vek_test_on(NAME VARIANT COMMAND...): the test NAME@VARIANT; one that cannot run on this machine is listed as not run.
function(vek_test_on name variant)
  add_test(NAME ${name}@${variant} COMMAND ${ARGN})
  set_tests_properties(${name}@${variant} PROPERTIES
    ENVIRONMENT "${VEK_ENVIRONMENT_OF_${variant}}" LABELS ${variant} TIMEOUT 600)
  if(NOT VEK_RUNS_${variant})
    set_tests_properties(${name}@${variant} PROPERTIES DISABLED TRUE)
  endif()
endfunction()
