# All cases of this suite share the login's settings file (and the process
# table, for the root case of the paths), so one ctest run must not start two
# at once. The tests only exist once discovery has run at test time; a
# script included after the discovery script marks them with one lock.
# (Runs across build folders are kept apart by a file lock in the fixture.)
set(zel_lock_script "${CMAKE_CURRENT_BINARY_DIR}/${name}_resource_lock.cmake")
file(WRITE "${zel_lock_script}"
  "if(${name}_TESTS)\n"
  "  set_tests_properties(\${${name}_TESTS} PROPERTIES RESOURCE_LOCK client_config_ini)\n"
  "endif()\n")
# Deferred to the end of this folder, after gtest_discover_tests added its script.
cmake_language(EVAL CODE
  "cmake_language(DEFER CALL set_property DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES [[${zel_lock_script}]])")
