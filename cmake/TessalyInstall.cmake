# Installs headers and package files for CMake and pkg-config; tessaly_add_library installs the libraries.
# Component lib is what running a program needs, dev what building one needs.
include(CMakePackageConfigHelpers)

set(cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Tessaly)
set(header_dir ${CMAKE_INSTALL_INCLUDEDIR}/Tessaly)

install(DIRECTORY Runtime/include DESTINATION ${header_dir} COMPONENT dev
    FILES_MATCHING PATTERN "*.h" PATTERN "*.inl")
foreach(module IN ITEMS tz_kernel tz_particles)
    install(DIRECTORY Runtime/${module}/include DESTINATION ${header_dir}/${module} COMPONENT dev
        FILES_MATCHING PATTERN "*.h" PATTERN "*.inl")
endforeach()

install(EXPORT ${TESSALY_EXPORT} NAMESPACE Tessaly:: DESTINATION ${cmake_dir} COMPONENT dev)
configure_package_config_file(cmake/TessalyConfig.cmake.in ${PROJECT_BINARY_DIR}/TessalyConfig.cmake
    INSTALL_DESTINATION ${cmake_dir})
set(compatibility SameMajorVersion)
if(PROJECT_VERSION_MAJOR EQUAL 0)
    set(compatibility SameMinorVersion)
endif()
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TessalyConfigVersion.cmake COMPATIBILITY ${compatibility})
install(FILES ${PROJECT_BINARY_DIR}/TessalyConfig.cmake ${PROJECT_BINARY_DIR}/TessalyConfigVersion.cmake
    DESTINATION ${cmake_dir} COMPONENT dev)

# The .pc file has a relative prefix, so that an installed tree can be moved.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig
    OUTPUT_VARIABLE prefix_from_pc)
configure_file(cmake/tessaly.pc.in ${PROJECT_BINARY_DIR}/tessaly.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tessaly.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

# gdb's printers: a copy to source, and for shared libraries one where gdb loads it automatically.
install(FILES tools/gdb/tessaly.py DESTINATION ${CMAKE_INSTALL_DATADIR}/tessaly/gdb COMPONENT dev)
if(BUILD_SHARED_LIBS)
    set(auto_load_dir ${CMAKE_INSTALL_LIBDIR})
    if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
        set(auto_load_dir ${CMAKE_INSTALL_DATADIR}/gdb/auto-load${CMAKE_INSTALL_FULL_LIBDIR})
    endif()
    install(FILES tools/gdb/tessaly.py DESTINATION ${auto_load_dir} COMPONENT dev
        RENAME libTessalyKernel.so.${PROJECT_VERSION}-gdb.py)
endif()
