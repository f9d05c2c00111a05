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
# Lintian overrides, one file per package (below): the lean executables are
# position-dependent on purpose, and a fully static qorc is static on purpose.
set(no_pie_override "# Linked as a position-dependent executable on purpose: a run lasts a few
# milliseconds, and skipping the relocations of a position-independent one
# is a measurable part of it.
@package@: hardening-no-pie [usr/bin/*]
")
set(qorc_overrides "${no_pie_override}")
set(sim_overrides "${no_pie_override}")
# A fully static qorc has no shared library for dpkg-shlibdeps to see. It
# still loads the system's name-service modules for any host source other
# than files and DNS, and those must come from the C library release it was
# linked with.
if(QORC_FULLY_STATIC)
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -dM -E -x c++ -include features.h /dev/null
    OUTPUT_VARIABLE libc_macros)
  string(REGEX MATCH "#define __GLIBC__ ([0-9]+)" _ "${libc_macros}")
  set(libc_major ${CMAKE_MATCH_1})
  string(REGEX MATCH "#define __GLIBC_MINOR__ ([0-9]+)" _ "${libc_macros}")
  set(libc_minor ${CMAKE_MATCH_1})
  if(libc_major STREQUAL "" OR libc_minor STREQUAL "")
    message(FATAL_ERROR "cannot tell the C library release of ${CMAKE_CXX_COMPILER}")
  endif()
  math(EXPR libc_next "${libc_minor} + 1")
  set(CPACK_DEBIAN_QORC_PACKAGE_DEPENDS
    "libc6 (>= ${libc_major}.${libc_minor}), libc6 (<< ${libc_major}.${libc_next})")
  set(qorc_overrides "# Linked statically on purpose: a run lasts a few milliseconds, and the
# dynamic loader would be a measurable part of it. See the dependency on libc6.
@package@: statically-linked-binary [usr/bin/qorc]
")
endif()
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

foreach(component qorc sim)
  set(package ${QORC_PACKAGE_NAME_${component}})
  string(CONFIGURE "${${component}_overrides}" overrides @ONLY)
  file(WRITE ${CMAKE_BINARY_DIR}/packaging/${package}.lintian-overrides "${overrides}")
  install(FILES ${CMAKE_BINARY_DIR}/packaging/${package}.lintian-overrides RENAME ${package}
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides COMPONENT ${component})
endforeach()

include(CPack)
