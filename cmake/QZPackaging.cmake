# Debian packages made by CPack, one per install component:
#   libqzapp0      the shared libraries                      (component libs)
#   libqzapp-dev   headers, CMake package, pkg-config files  (dev)
#   qzhelper       the privileged helper and its polkit actions
#   qzutil         the command-line front end
#   disktool       Disk Tool, its helper launcher, desktop file, icon and metainfo
# Each package carries its copyright file and its (native) changelog in /usr/share/doc/PACKAGE.
set(QZ_PACKAGES libs libqzapp0 dev libqzapp-dev qzhelper qzhelper qzutil qzutil disktool disktool)

set(_qz_changelog ${CMAKE_BINARY_DIR}/packaging/changelog)
configure_file(${PROJECT_SOURCE_DIR}/packaging/changelog.in ${_qz_changelog} @ONLY)
find_program(QZ_GZIP gzip REQUIRED)
add_custom_command(OUTPUT ${_qz_changelog}.gz
    COMMAND ${QZ_GZIP} -9nc ${_qz_changelog} > ${_qz_changelog}.gz
    DEPENDS ${_qz_changelog} VERBATIM)
add_custom_target(qz_package_changelog ALL DEPENDS ${_qz_changelog}.gz)

set(_qz_remaining ${QZ_PACKAGES})
while(_qz_remaining)
    list(POP_FRONT _qz_remaining component package)
    string(TOUPPER ${component} upper)
    set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package})
    set(CPACK_DEBIAN_${upper}_FILE_NAME ${package}_${PROJECT_VERSION}_amd64.deb)
    install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${_qz_changelog}.gz
            DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
endwhile()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qzapp)
set(CPACK_PACKAGE_VENDOR "The QZApp developers")
set(CPACK_PACKAGE_CONTACT "The QZApp developers <support@example.org>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL libs dev qzhelper qzutil disktool)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://www.example.org/disktool")
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# The packages' own libraries satisfy each other's shared-library dependencies.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/lib)

set(CPACK_DEBIAN_LIBS_PACKAGE_SECTION libs)
# Its shlibs file and the ldconfig trigger (instead of maintainer scripts that run ldconfig).
configure_file(${PROJECT_SOURCE_DIR}/packaging/shlibs.in ${CMAKE_BINARY_DIR}/packaging/shlibs @ONLY)
set(CPACK_DEBIAN_LIBS_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/packaging/shlibs ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_COMPONENT_LIBS_DESCRIPTION "application-support framework for disk and file utilities\n\
 QZApp runs privileged file operations through a helper, copies and deletes\n\
 file trees with their metadata, hands work between threads, encodes and\n\
 encrypts data and sends bug reports. This package holds its shared libraries.")

set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DEPENDS libs)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "qt6-base-dev, libplist-dev")
set(CPACK_COMPONENT_DEV_DESCRIPTION "application-support framework for disk and file utilities (development files)\n\
 The headers, the CMake package (find_package(QZApp)) and the pkg-config\n\
 files for building programs on QZApp.")

set(CPACK_DEBIAN_QZHELPER_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_QZHELPER_PACKAGE_DEPENDS "polkitd")
set(CPACK_COMPONENT_QZHELPER_DESCRIPTION "privileged helper for QZApp applications\n\
 The helper program that QZApp applications start, through pkexec, to open,\n\
 re-own, delete and share files as the administrator, with the polkit actions\n\
 it asks about for every command.")

set(CPACK_DEBIAN_QZUTIL_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_QZUTIL_DEPENDS libs qzhelper)
set(CPACK_COMPONENT_QZUTIL_DESCRIPTION "command-line front end to the QZApp framework\n\
 qzutil quotes, escapes, sizes, versions, copies, deletes, encodes and\n\
 encrypts from the shell, and talks to a QZApp helper for testing.")

set(CPACK_DEBIAN_DISKTOOL_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_DISKTOOL_DEPENDS libs qzhelper)
set(CPACK_DEBIAN_DISKTOOL_PACKAGE_DEPENDS "pkexec, libqt6svg6")
set(CPACK_DEBIAN_DISKTOOL_PACKAGE_RECOMMENDS "adwaita-icon-theme")
set(CPACK_COMPONENT_DISKTOOL_DESCRIPTION "copy, delete and repair files and folders\n\
 Disk Tool copies and deletes files and folders with all their metadata and\n\
 can cancel a copy cleanly. Where the user's own rights do not reach, it\n\
 opens, deletes, re-owns or shares files as the administrator through the\n\
 QZApp helper. 'disktool --tour' runs through every part without a display.")

include(CPack)
