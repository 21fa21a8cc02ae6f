# Debian packages, of which tools/package makes a static and a shared build: the libraries, what is needed to build with
# them, and their debug information.
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

# Named after the library that hosts link.
set(CPACK_DEBIAN_LIB_PACKAGE_NAME libtessalyparticles${TESSALY_SOVERSION})
set(CPACK_DEBIAN_LIB_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIB_PACKAGE_SHLIBDEPS ON)
file(WRITE ${PROJECT_BINARY_DIR}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LIB_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/triggers)
set(CPACK_DEBIAN_LIB_DESCRIPTION
"Keeps each stream's particles in reference-counted pages, a structure of arrays
each, under one small lock. This package holds the shared libraries.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtessaly-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${CPACK_DEBIAN_LIB_PACKAGE_NAME} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEV_DESCRIPTION
"Headers, static libraries, files for CMake and pkg-config, and what shows a
debugger's user streams and pages.")

set(CPACK_DEBIAN_DBG_PACKAGE_NAME libtessaly-dbg)
set(CPACK_DEBIAN_DBG_PACKAGE_SECTION debug)
set(CPACK_DEBIAN_DBG_PACKAGE_DEPENDS "${CPACK_DEBIAN_LIB_PACKAGE_NAME} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DBG_DESCRIPTION "The debug information of the shared libraries.")

include(CPack)
