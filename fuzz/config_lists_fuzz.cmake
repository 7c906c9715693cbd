# Compares the parser with GLib's own answers.
target_link_libraries(${target} PRIVATE PkgConfig::GLIB)
