# Writes the ABI of a built libzel_utils as abigail XML (cmake -P):
#   cmake -DABIDW=... -DLIBRARY=... -DSOURCE_DIR=... -DBINARY_DIR=... -DOUT=... -P abi_dump.cmake
# Only what the installed headers declare and the library exports is
# described; the checkout's own path is dropped so that the file does not
# depend on where the tree was cloned.
execute_process(
  COMMAND ${ABIDW} --headers-dir ${SOURCE_DIR}/utils --headers-dir ${BINARY_DIR}/utils
          --drop-private-types --exported-interfaces-only --no-show-locs --no-comp-dir-path
          --no-corpus-path --type-id-style hash --out-file ${OUT} ${LIBRARY}
  RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "abidw failed on ${LIBRARY} (${result})")
endif()
file(READ ${OUT} abi)
string(REPLACE "${SOURCE_DIR}/" "" abi "${abi}")
file(WRITE ${OUT} "${abi}")
