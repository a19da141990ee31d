# Debian packages, one per install component, made by CPack's DEB generator; packaging/package.sh
# configures a tree for them and runs cpack.
#   plugin: the plug-in module alone, in the framework's plug-in folder
#   tool:   lyrcap with its private copies of the framework and toolkit, samples, manual page
#           and bash completion
set(LYR_PACKAGE_CONTACT "lyrpcap maintainers <maintainers@users.noreply.c-seed-15390849.example>"
    CACHE STRING "Maintainer of the Debian packages")
set(LYR_DEB_LIBRARY_DIRS "" CACHE STRING
    "Folders with the target's libraries in unpacked Debian package trees (a DEBIAN folder above them), for dpkg-shlibdeps when they are not installed")

# Every package carries its copyright and changelog, which Debian wants in /usr/share/doc/<package>.
file(STRINGS ${PROJECT_SOURCE_DIR}/packaging/changelog changelog_head LIMIT_COUNT 1)
if(NOT changelog_head MATCHES "^lyrpcap \\(${PROJECT_VERSION}\\) ")
    message(FATAL_ERROR "packaging/changelog does not begin with version ${PROJECT_VERSION}: give the version an entry")
endif()
set(changelog_gz ${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog.gz)
# Ninja makes a custom command's output folder itself; Make does not.
file(MAKE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/packaging)
add_custom_command(OUTPUT ${changelog_gz}
    COMMAND gzip -9n < ${PROJECT_SOURCE_DIR}/packaging/changelog > ${changelog_gz}
    DEPENDS ${PROJECT_SOURCE_DIR}/packaging/changelog)
add_custom_target(debian-changelog ALL DEPENDS ${changelog_gz})

set(LYR_DEB_PLUGIN_PACKAGE lyr-plugin-pcap)
set(LYR_DEB_TOOL_PACKAGE lyrcap)
foreach(component plugin tool)
    string(TOUPPER ${component} upper)
    set(docdir ${CMAKE_INSTALL_DATADIR}/doc/${LYR_DEB_${upper}_PACKAGE})
    install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${changelog_gz} DESTINATION ${docdir} COMPONENT ${component})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME lyrpcap)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${LYR_PACKAGE_CONTACT})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
# Staged with DESTDIR, so that the install sees the prefix the tool was configured for (it
# refuses another): its run path and the paths a privileged run trusts are absolute.
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL plugin tool)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# dpkg-shlibdeps gives each package the libraries it loads, libpcap at the version built against.
# liblyr.so and libkttools.so are found in the build tree and belong to no package: on a board
# the framework brings them, so they give no dependency.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${CMAKE_CURRENT_BINARY_DIR}/framework ${CMAKE_CURRENT_BINARY_DIR}/toolkit ${LYR_DEB_LIBRARY_DIRS})
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_DEBIAN_PLUGIN_PACKAGE_NAME ${LYR_DEB_PLUGIN_PACKAGE})
set(CPACK_COMPONENT_PLUGIN_DESCRIPTION "libpcap back-ends for the Lyr network framework
A plug-in of the Lyr network framework, liblyrpcap.so, that gives it three
back-ends under the name pcap: a capture file that replays and records
Ethernet frames, a live input that captures from a network device, and a live
output that transmits frames at their timestamps.
The framework, liblyr.so, and its toolkit, libkttools.so, are not packaged:
they come with the framework on the device.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME ${LYR_DEB_TOOL_PACKAGE})
set(CPACK_COMPONENT_TOOL_DEPENDS plugin)
set(CPACK_COMPONENT_TOOL_DESCRIPTION "command-line host for the pcap plug-in of the Lyr framework
lyrcap loads the pcap plug-in as the Lyr framework does and drives its
back-ends from the command line: it shows what a capture file holds, replays
and converts capture files, sends them on a device at their own times, and
captures a device's traffic.
It carries private copies of the framework and toolkit libraries, outside the
public library path, and two sample captures.")

include(CPack)
