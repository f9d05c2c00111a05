# SPDX-License-Identifier: Apache-2.0
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
# The team answers for the packages, not one of its members.
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${CPACK_PACKAGE_CONTACT}")
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
# The generated headers refuse any other protobuf release than the one they
# were generated for, and the static libraries hold that release's inline
# code: the package depends on that very release (its upstream version, any
# Debian revision). The headers are the same on every architecture and the
# libraries lie in the architecture's own directory, so the packages of
# several architectures install side by side.
if(NOT Protobuf_VERSION MATCHES "^([0-9]+)\\.([0-9]+)\\.([0-9]+)$")
  message(FATAL_ERROR "cannot tell the protobuf release (Protobuf_VERSION '${Protobuf_VERSION}')")
endif()
math(EXPR protobuf_next_patch "${CMAKE_MATCH_3} + 1")
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libprotobuf-dev (>= ${Protobuf_VERSION}), \
libprotobuf-dev (<< ${CMAKE_MATCH_1}.${CMAKE_MATCH_2}.${protobuf_next_patch})")
set(CPACK_QORC_MULTIARCH_SAME ${QORC_PACKAGE_NAME_dev})
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/QorcDebFields.cmake)
set(CPACK_COMPONENT_DEV_DESCRIPTION "client library for cellular-modem boards (development files)
The library behind qorc, for programs that administer boards through
their management daemon qord: qor::Client and its remote commands, over
the orvi RPC framework. It ships static libraries, the public headers, a
CMake package (find_package(qorc), target qorc::client) and a pkg-config
file (qorc).")

include(CPack)
