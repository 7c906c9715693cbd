# Internal units, from their static library.
target_link_libraries(${name} PRIVATE zel::internal_units)
