# API reference: `cmake --build build --target docs` runs Doxygen over the
# installed headers and writes build/docs/html/index.html. Every public
# class, function and parameter must be documented: a warning fails the target.
find_package(Doxygen)
if(NOT DOXYGEN_FOUND)
  return()
endif()

set(DOXYGEN_PROJECT_NAME "libzel_utils")
set(DOXYGEN_PROJECT_NUMBER ${PROJECT_VERSION})
set(DOXYGEN_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/docs)
set(DOXYGEN_GENERATE_HTML YES)
set(DOXYGEN_GENERATE_LATEX NO)
set(DOXYGEN_EXTRACT_ALL NO)
set(DOXYGEN_EXTRACT_PRIVATE NO)
# The trace keys are namespace-scope static constants: without this they would
# be left out of the reference.
set(DOXYGEN_EXTRACT_STATIC YES)
set(DOXYGEN_WARN_IF_UNDOCUMENTED YES)
set(DOXYGEN_WARN_IF_DOC_ERROR YES)
set(DOXYGEN_WARN_NO_PARAMDOC YES)
set(DOXYGEN_WARN_AS_ERROR FAIL_ON_WARNINGS)
set(DOXYGEN_QUIET YES)
set(DOXYGEN_FULL_PATH_NAMES YES)
set(DOXYGEN_STRIP_FROM_PATH ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR})
set(DOXYGEN_STRIP_FROM_INC_PATH ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR})
# Export macros read as nothing; the helpers the loggers hold by value are
# installed but not part of the API.
set(DOXYGEN_ENABLE_PREPROCESSING YES)
set(DOXYGEN_MACRO_EXPANSION YES)
set(DOXYGEN_EXPAND_ONLY_PREDEF YES)
# The inner quotes are escaped for the Doxyfile: doxygen_add_docs quotes a
# value with spaces but leaves quotes inside it as they are.
set(DOXYGEN_PREDEFINED "ZEL_API=" "ZEL_INTERNAL=" "ZEL_BEGIN_C_LINKAGE=extern \\\"C\\\" {"
                       "ZEL_END_C_LINKAGE=}")
set(DOXYGEN_EXCLUDE_SYMBOLS "zel::logdetail" "zel::logdetail::*" "zel::LoopThread")

doxygen_add_docs(docs ${ZEL_PUBLIC_HEADERS}
  COMMENT "Building the API reference (build/docs/html/index.html)")
