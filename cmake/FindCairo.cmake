# Cairo::Cairo: draws shapes and text, with fonts from Fontconfig.
include(FindPackageHandleStandardArgs)
find_path(Cairo_INCLUDE_DIR cairo.h PATH_SUFFIXES cairo)
find_library(Cairo_LIBRARY cairo)
mark_as_advanced(Cairo_INCLUDE_DIR Cairo_LIBRARY)
find_package(Fontconfig QUIET)
find_package_handle_standard_args(Cairo DEFAULT_MSG Cairo_LIBRARY Cairo_INCLUDE_DIR Fontconfig_FOUND)
if(Cairo_FOUND AND NOT TARGET Cairo::Cairo)
    add_library(Cairo::Cairo UNKNOWN IMPORTED)
    set_target_properties(Cairo::Cairo PROPERTIES
        IMPORTED_LOCATION ${Cairo_LIBRARY} INTERFACE_INCLUDE_DIRECTORIES ${Cairo_INCLUDE_DIR}
        INTERFACE_LINK_LIBRARIES Fontconfig::Fontconfig)
endif()
