# SPDX-License-Identifier: Apache-2.0
# Run by CPack after the packages are built (CPACK_POST_BUILD_SCRIPTS): adds
# the control fields that its DEB generator cannot write, "Multi-Arch: same"
# for the packages named in CPACK_QORC_MULTIARCH_SAME. Each such package is
# unpacked and built again with dpkg-deb, which keeps the files, their modes
# and times and owns them by root, and takes its timestamps from
# SOURCE_DATE_EPOCH when that is set.
cmake_policy(VERSION 3.19)
find_program(DPKG_DEB dpkg-deb REQUIRED)
foreach(deb ${CPACK_PACKAGE_FILES})
  get_filename_component(name ${deb} NAME)
  string(REGEX REPLACE "_.*" "" package ${name})
  if(NOT package IN_LIST CPACK_QORC_MULTIARCH_SAME)
    continue()
  endif()
  set(tree ${deb}.tree)
  file(REMOVE_RECURSE ${tree})
  execute_process(COMMAND ${DPKG_DEB} -R ${deb} ${tree} COMMAND_ERROR_IS_FATAL ANY)
  file(READ ${tree}/DEBIAN/control control)
  if(NOT control MATCHES "\nMulti-Arch:")
    string(REGEX REPLACE "(^|\n)(Architecture: [^\n]*\n)" "\\1\\2Multi-Arch: same\n" control
      "${control}")
    file(WRITE ${tree}/DEBIAN/control "${control}")
  endif()
  execute_process(COMMAND ${DPKG_DEB} --root-owner-group -b ${tree} ${deb}
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE ${tree})
endforeach()
