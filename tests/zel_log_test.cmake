# gcc 12 with sanitizers reports a false maybe-uninitialized inside <regex>.
target_compile_options(${name} PRIVATE -Wno-maybe-uninitialized)
