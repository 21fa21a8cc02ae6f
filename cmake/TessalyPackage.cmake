# Debian packages, made by tools/package from a static and a shared build: libraries, development files and debug
# information.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tessaly)
set(CPACK_PACKAGE_VENDOR Tessaly)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Main-memory particle storage of a real-time particle-effects runtime")
set(CPACK_COMPONENTS_ALL lib dev dbg)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/finish_packages.cmake)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Tessaly developers <developers@tessaly.invalid>")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

# Named after the library that a host links.
set(CPACK_DEBIAN_LIB_PACKAGE_NAME libtessalyparticles${TESSALY_SOVERSION})
set(CPACK_DEBIAN_LIB_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIB_PACKAGE_SHLIBDEPS ON)
file(WRITE ${PROJECT_BINARY_DIR}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LIB_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/triggers)
set(CPACK_DEBIAN_LIB_DESCRIPTION
"Stores the particles of each stream in reference-counted pages; each page is a
structure of arrays. This package contains the shared libraries.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtessaly-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${CPACK_DEBIAN_LIB_PACKAGE_NAME} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEV_DESCRIPTION
"Headers, static libraries, files for CMake and pkg-config, and gdb's printers
for streams, pages and particles.")

set(CPACK_DEBIAN_DBG_PACKAGE_NAME libtessaly-dbg)
set(CPACK_DEBIAN_DBG_PACKAGE_SECTION debug)
set(CPACK_DEBIAN_DBG_PACKAGE_DEPENDS "${CPACK_DEBIAN_LIB_PACKAGE_NAME} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DBG_DESCRIPTION "Debug information of the shared libraries.")

include(CPack)
