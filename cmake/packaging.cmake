# Packages: Debian packages per install component and one .tar.gz of
# everything. `cpack` in the build folder makes them.
set(CPACK_PACKAGE_NAME zel-utils)
set(CPACK_PACKAGE_VENDOR "libzel_utils maintainers")
set(CPACK_PACKAGE_CONTACT "libzel_utils maintainers <zel-utils@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Utility layer of the device-redirection client processes")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_GENERATOR DEB TGZ)

# One .deb per component, named the Debian way.
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libzel-utils${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libzel-utils-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
# JsonCpp is part of the public interface; the package is found with pkg-config.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libjsoncpp-dev, pkg-config")
set(CPACK_DEBIAN_STANDINS_PACKAGE_NAME libzel-utils-standins)
set(CPACK_DEBIAN_STANDINS_PACKAGE_SECTION libs)
# Shared-library dependencies from dpkg-shlibdeps; the stand-ins are found in
# the build tree, and between our own packages the component order below says it.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/client)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_COMPONENTS_ALL Runtime Development)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS Runtime)
if(ZEL_USE_STANDIN_ORVANE_LOG OR ZEL_USE_STANDIN_TRACER)
  list(APPEND CPACK_COMPONENTS_ALL StandIns)
  set(CPACK_COMPONENT_RUNTIME_DEPENDS StandIns)
endif()

# The archive holds every component in one tree.
set(CPACK_ARCHIVE_COMPONENT_INSTALL OFF)

include(CPack)
