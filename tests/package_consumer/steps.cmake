# Shared by the package tests (cmake -P scripts): a command that must succeed.
function(run_step)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "step failed (${result}): ${ARGN}")
  endif()
endfunction()
