# Debian packages through CPack, one per install component:
#   qorc          the client;
#   qord-sim      the simulated board;
#   libqorc-dev   the client library for other programs.
# Built with `cpack -G DEB` in a build configured with CMAKE_INSTALL_PREFIX=/usr
# (scripts/package.sh). Dependencies on shared libraries come from
# dpkg-shlibdeps; a cross build names its package architecture in
# QORC_DEB_ARCHITECTURE (the armhf toolchain file does).
set(QORC_PACKAGE_NAME_qorc qorc)
set(QORC_PACKAGE_NAME_sim qord-sim)
set(QORC_PACKAGE_NAME_dev libqorc-dev)

# The packages are native (this project is its own packager), so their
# version is the project's and their changelog is changelog.gz, which must
# describe the version being packaged.
file(STRINGS ${PROJECT_SOURCE_DIR}/doc/changelog changelog_head LIMIT_COUNT 1)
if(NOT changelog_head MATCHES "^qorc \\(${PROJECT_VERSION}\\)")
  message(FATAL_ERROR "doc/changelog does not start with version ${PROJECT_VERSION}")
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qorc)
set(CPACK_PACKAGE_VENDOR "qorc developers")
set(CPACK_PACKAGE_CONTACT "qorc developers <qorc-dev@lists.example.org>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL qorc sim dev)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS OFF)
if(QORC_DEB_ARCHITECTURE)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${QORC_DEB_ARCHITECTURE})
endif()
if(QORC_CROSS_LIBC)
  # Where dpkg-shlibdeps finds the target's C library (owned by libc6 in the
  # database that DPKG_ADMINDIR names; see scripts/fetch-armhf-sysroot.sh).
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${QORC_CROSS_LIBC}/lib)
endif()

set(CPACK_DEBIAN_QORC_PACKAGE_NAME ${QORC_PACKAGE_NAME_qorc})
set(CPACK_DEBIAN_QORC_PACKAGE_SECTION net)
set(CPACK_COMPONENT_QORC_DESCRIPTION "command-line client for cellular-modem boards
qorc administers an embedded cellular-modem board from a host computer
through the board's management daemon, qord. Each run connects over IP,
runs one sub-command and exits with a status that scripts can rely on:
upgrade the system image and follow the board through its reboot, switch
to firmware from host, read and amend the PSI settings as JSON, reset the
IMEI with a passcode file, activate the TALVEX mode, or check that a board
answers. Several boards on one host are told apart by local interface.")

set(CPACK_DEBIAN_SIM_PACKAGE_NAME ${QORC_PACKAGE_NAME_sim})
set(CPACK_DEBIAN_SIM_PACKAGE_SECTION devel)
set(CPACK_COMPONENT_SIM_DESCRIPTION "simulated board for qorc
qord-sim serves every command of the board management daemon qord on a
TCP address, keeps the board's state in a JSON file and reboots like a
board. It lets you try qorc without a board, and test scripts and
programs that drive boards. Misbehaviours of real boards (refused,
failing, dropped or stalled commands) can be switched on for tests.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME ${QORC_PACKAGE_NAME_dev})
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libprotobuf-dev")
set(CPACK_COMPONENT_DEV_DESCRIPTION "client library for cellular-modem boards (development files)
The library behind qorc, for programs that administer boards through
their management daemon qord: qor::Client and its remote commands, over
the orvi RPC framework. It ships static libraries, the public headers, a
CMake package (find_package(qorc), target qorc::client) and a pkg-config
file (qorc).")

# Lintian overrides, one file per package.
foreach(component qorc sim)
  set(package ${QORC_PACKAGE_NAME_${component}})
  configure_file(${PROJECT_SOURCE_DIR}/packaging/lintian-overrides.in
    ${CMAKE_BINARY_DIR}/packaging/${package}.lintian-overrides @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/packaging/${package}.lintian-overrides RENAME ${package}
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides COMPONENT ${component})
endforeach()

include(CPack)
