# The 'coverage' target: gcovr's report on utils/ from the counters that the
# test runs left in this build folder (run ctest first; runs as other users
# add to the same counters). Lines that only a throw or unreachable code
# would take do not count. The thresholds are the project's floor.
find_program(GCOVR gcovr)
if(NOT GCOVR)
  message(FATAL_ERROR "ZEL_COVERAGE needs gcovr (Debian: gcovr)")
endif()
set(ZEL_COVERAGE_MIN_LINES 100 CACHE STRING "Line coverage of utils/ below which 'coverage' fails")
set(ZEL_COVERAGE_MIN_BRANCHES 95 CACHE STRING "Branch coverage of utils/ below which 'coverage' fails")
add_custom_target(coverage
  COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/coverage
  COMMAND ${GCOVR} --root ${PROJECT_SOURCE_DIR} --filter ${PROJECT_SOURCE_DIR}/utils/
          --exclude-throw-branches --exclude-unreachable-branches
          --txt ${PROJECT_BINARY_DIR}/coverage.txt
          --html-details ${PROJECT_BINARY_DIR}/coverage/index.html
          --print-summary
          --fail-under-line ${ZEL_COVERAGE_MIN_LINES}
          --fail-under-branch ${ZEL_COVERAGE_MIN_BRANCHES}
          ${PROJECT_BINARY_DIR}
  WORKING_DIRECTORY ${PROJECT_BINARY_DIR}
  COMMENT "Coverage of utils/ (report: coverage/index.html, coverage.txt: lines)"
  VERBATIM)
