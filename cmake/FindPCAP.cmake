# libpcap ships no CMake package; find its header and library (also inside a cross sysroot).
find_path(PCAP_INCLUDE_DIR pcap/pcap.h)
find_library(PCAP_LIBRARY NAMES pcap)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(PCAP REQUIRED_VARS PCAP_LIBRARY PCAP_INCLUDE_DIR)
if(PCAP_FOUND AND NOT TARGET PCAP::pcap)
    add_library(PCAP::pcap UNKNOWN IMPORTED)
    set_target_properties(PCAP::pcap PROPERTIES
        IMPORTED_LOCATION "${PCAP_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${PCAP_INCLUDE_DIR}")
endif()
