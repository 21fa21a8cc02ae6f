# PlfColony::PlfColony: a header-only container.
include(FindPackageHandleStandardArgs)
find_path(PlfColony_INCLUDE_DIR plf_colony.h)
mark_as_advanced(PlfColony_INCLUDE_DIR)
find_package_handle_standard_args(PlfColony DEFAULT_MSG PlfColony_INCLUDE_DIR)
if(PlfColony_FOUND AND NOT TARGET PlfColony::PlfColony)
    add_library(PlfColony::PlfColony INTERFACE IMPORTED)
    target_include_directories(PlfColony::PlfColony INTERFACE ${PlfColony_INCLUDE_DIR})
endif()
