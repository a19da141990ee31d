# libcap (Debian's libcap-dev) ships no CMake package; find its header and library (also inside a
# cross sysroot).
find_path(CAP_INCLUDE_DIR sys/capability.h)
find_library(CAP_LIBRARY NAMES cap)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Cap REQUIRED_VARS CAP_LIBRARY CAP_INCLUDE_DIR)
if(Cap_FOUND AND NOT TARGET Cap::cap)
    add_library(Cap::cap UNKNOWN IMPORTED)
    set_target_properties(Cap::cap PROPERTIES
        IMPORTED_LOCATION "${CAP_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${CAP_INCLUDE_DIR}")
endif()
