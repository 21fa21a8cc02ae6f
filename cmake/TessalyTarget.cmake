# Warnings for a target of this project, not for the targets that link it.
function(tessaly_set_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
    if(TESSALY_WERROR)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
endfunction()

# Finds the packages that the targets of a folder need. If one is missing, prints a message and returns from the calling
# list file, because the library can be built without them.
macro(tessaly_need_packages part)
    set(tessaly_missing "")
    foreach(tessaly_package IN ITEMS ${ARGN})
        find_package(${tessaly_package} QUIET)
        if(NOT ${tessaly_package}_FOUND)
            list(APPEND tessaly_missing ${tessaly_package})
        endif()
    endforeach()
    if(tessaly_missing)
        list(JOIN tessaly_missing ", " tessaly_missing)
        message(STATUS "Tessaly: ${part} left out, not found: ${tessaly_missing}")
        return()
    endif()
endmacro()

# While the major version is 0, a new minor version may break hosts.
set(TESSALY_SOVERSION ${PROJECT_VERSION_MAJOR})
if(PROJECT_VERSION_MAJOR EQUAL 0)
    set(TESSALY_SOVERSION 0.${PROJECT_VERSION_MINOR})
endif()

# The export set of the libraries. Static and shared libraries of two builds can be installed together.
set(TESSALY_EXPORT TessalyTargets-static)
if(BUILD_SHARED_LIBS)
    set(TESSALY_EXPORT TessalyTargets-shared)
endif()

# Adds a library of the runtime: Tessaly::<name>, built as Tessaly<name> from the given sources. It needs neither
# exceptions nor run-time type information. It is compiled with type information for hosts that derive from its classes
# and for sanitizers. It has debug information in every configuration, which gdb's printers need; `cmake --install
# --strip` removes it.
function(tessaly_add_library name)
    set(target Tessaly${name})
    add_library(${target} ${ARGN})
    add_library(Tessaly::${name} ALIAS ${target})
    set_target_properties(${target} PROPERTIES
        EXPORT_NAME ${name}
        VERSION ${PROJECT_VERSION}
        SOVERSION ${TESSALY_SOVERSION}
        CXX_VISIBILITY_PRESET hidden
        POSITION_INDEPENDENT_CODE ON
        INSTALL_RPATH $ORIGIN)
    target_compile_features(${target} PUBLIC cxx_std_17)
    target_compile_options(${target} PRIVATE -fno-exceptions -fno-semantic-interposition -ffp-contract=off -g)
    target_include_directories(${target} PUBLIC
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/Runtime/include>
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/Runtime>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/Tessaly/include>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/Tessaly>)
    tessaly_set_warnings(${target})
    install(TARGETS ${target} EXPORT ${TESSALY_EXPORT}
        LIBRARY COMPONENT lib NAMELINK_COMPONENT dev
        ARCHIVE COMPONENT dev)
endfunction()
