# cpack runs this before it makes the packages. Moves the debug information of the shared libraries to a package of its
# own, where debuggers find it by build id, and adds a changelog to each package.
file(GLOB_RECURSE libraries LIST_DIRECTORIES false ${CPACK_TEMPORARY_DIRECTORY}/lib/*.so.*)
foreach(library IN LISTS libraries)
    if(IS_SYMLINK ${library})
        continue()
    endif()
    execute_process(COMMAND readelf --notes ${library} OUTPUT_VARIABLE notes COMMAND_ERROR_IS_FATAL ANY)
    if(NOT notes MATCHES "Build ID: ([0-9a-f][0-9a-f])([0-9a-f]+)")
        message(FATAL_ERROR "${library} has no build id")
    endif()
    set(folder ${CPACK_TEMPORARY_DIRECTORY}/dbg/usr/lib/debug/.build-id/${CMAKE_MATCH_1})
    file(MAKE_DIRECTORY ${folder})
    execute_process(
        COMMAND objcopy --only-keep-debug --compress-debug-sections ${library} ${folder}/${CMAKE_MATCH_2}.debug
        COMMAND_ERROR_IS_FATAL ANY)
    file(CHMOD ${folder}/${CMAKE_MATCH_2}.debug PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
    execute_process(COMMAND strip --strip-unneeded --remove-section=.comment ${library} COMMAND_ERROR_IS_FATAL ANY)
endforeach()

string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER ${component} upper)
    set(folder ${CPACK_TEMPORARY_DIRECTORY}/${component}/usr/share/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
    file(WRITE ${folder}/changelog "tessaly (${CPACK_PACKAGE_VERSION}) unstable; urgency=medium\n
  * See CHANGELOG.md of the sources for the changes.\n
 -- ${CPACK_DEBIAN_PACKAGE_MAINTAINER}  ${date}\n")
    execute_process(COMMAND gzip -9n ${folder}/changelog COMMAND_ERROR_IS_FATAL ANY)
endforeach()
