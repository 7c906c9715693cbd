# ABI of the shared library against the checked-in baseline abi/libzel_utils.abi
# (abigail-tools; ELF only, so not on macOS):
#   abi-check     fails when the built library's exported ABI differs from
#                 the baseline in any way, additions included;
#   abi-baseline  rewrites the baseline, on purpose, after an ABI change. The
#                 CHANGELOG then says what the change means for the SOVERSION.
# Compare a RelWithDebInfo build (the default): abidw reads the debug info.
find_program(ZEL_ABIDW abidw)
find_program(ZEL_ABIDIFF abidiff)
if(APPLE OR NOT ZEL_ABIDW OR NOT ZEL_ABIDIFF)
  return()
endif()

set(ZEL_ABI_BASELINE ${PROJECT_SOURCE_DIR}/abi/libzel_utils.abi)
set(ZEL_ABI_CURRENT ${PROJECT_BINARY_DIR}/abi/libzel_utils.abi)
function(zel_abi_dump_command out var)
  set(${var}
      ${CMAKE_COMMAND} -DABIDW=${ZEL_ABIDW} -DLIBRARY=$<TARGET_FILE:zel_utils>
      -DSOURCE_DIR=${PROJECT_SOURCE_DIR} -DBINARY_DIR=${PROJECT_BINARY_DIR} -DOUT=${out}
      -P ${PROJECT_SOURCE_DIR}/cmake/abi_dump.cmake PARENT_SCOPE)
endfunction()

zel_abi_dump_command(${ZEL_ABI_CURRENT} dump_current)
add_custom_target(abi-check
  COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/abi
  COMMAND ${dump_current}
  COMMAND ${ZEL_ABIDIFF} ${ZEL_ABI_BASELINE} ${ZEL_ABI_CURRENT}
  DEPENDS zel_utils
  COMMENT "Comparing the exported ABI of libzel_utils with abi/libzel_utils.abi"
  VERBATIM)

zel_abi_dump_command(${ZEL_ABI_BASELINE} dump_baseline)
add_custom_target(abi-baseline
  COMMAND ${dump_baseline}
  DEPENDS zel_utils
  COMMENT "Rewriting abi/libzel_utils.abi from the built library"
  VERBATIM)
