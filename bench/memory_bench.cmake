# The recovery it times is an internal unit: from its static library.
target_link_libraries(${name} PRIVATE zel::internal_units)
