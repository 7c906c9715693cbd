# The recovery reader is an internal unit: from its static library.
target_link_libraries(${target} PRIVATE zel::internal_units)
