# A pair of Debian packages: tools/package makes them of a static and a shared build.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tessaly)
set(CPACK_PACKAGE_VENDOR Tessaly)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Main-memory particle storage of a real-time particle-effects runtime")
set(CPACK_COMPONENTS_ALL lib dev)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/split_debug_info.cmake)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Tessaly developers")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_LIB_PACKAGE_NAME libtessaly${TESSALY_SOVERSION})
set(CPACK_DEBIAN_LIB_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIB_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_LIB_DESCRIPTION
"Keeps each stream's particles in reference-counted pages, a structure of arrays
each, under one small lock. This package holds the shared libraries.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtessaly-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${CPACK_DEBIAN_LIB_PACKAGE_NAME} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEV_DESCRIPTION
"Headers, static libraries, files for CMake and pkg-config, and what a debugger
wants to know of the shared libraries.")

include(CPack)
