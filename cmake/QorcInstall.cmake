# SPDX-License-Identifier: Apache-2.0
# What `cmake --install` and the packages put on a host, by component:
#   qorc  the client, its manual page and its bash completion;
#   sim   the simulated board and its manual page;
#   dev   the client library for other programs: static libraries, the
#         public headers, a CMake package (qorc::client) and qorc.pc.
include(CMakePackageConfigHelpers)

install(TARGETS qorc RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT qorc)
install(TARGETS qord-sim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT sim)

# The library, under names that say whose it is.
set_target_properties(qor PROPERTIES OUTPUT_NAME qorc-client EXPORT_NAME client)
set_target_properties(orvi PROPERTIES OUTPUT_NAME qorc-orvi EXPORT_NAME orvi)
set_target_properties(qor_protobuf PROPERTIES OUTPUT_NAME qorc-messages EXPORT_NAME messages)
set_target_properties(orvi_protobuf PROPERTIES OUTPUT_NAME qorc-envelope EXPORT_NAME envelope)
install(TARGETS qor orvi qor_protobuf orvi_protobuf EXPORT qorcTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)

# The public headers: qor::Client, the device handle, the upgrade's callback
# interface, the library's version and the exceptions a caller may catch.
# Nothing of the engine: the libraries above hold it.
set(qorc_include_dest ${QORC_INSTALL_INCLUDEDIR})
install(FILES qorc/src/lib/qor/client.h qorc/src/lib/qor/sysupgrade_handler.h
              ${CMAKE_BINARY_DIR}/qorc/include/qor/version.h
  DESTINATION ${qorc_include_dest}/qor COMPONENT dev)
install(FILES qorc/src/lib/qor/device/device.h
  DESTINATION ${qorc_include_dest}/qor/device COMPONENT dev)
install(FILES rpc/orvi/exceptions.h DESTINATION ${qorc_include_dest}/orvi COMPONENT dev)

set(qorc_cmake_dest ${CMAKE_INSTALL_LIBDIR}/cmake/qorc)
install(EXPORT qorcTargets NAMESPACE qorc:: DESTINATION ${qorc_cmake_dest} COMPONENT dev)
configure_package_config_file(packaging/qorcConfig.cmake.in
  ${CMAKE_BINARY_DIR}/packaging/qorcConfig.cmake INSTALL_DESTINATION ${qorc_cmake_dest})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/packaging/qorcConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/packaging/qorcConfig.cmake
              ${CMAKE_BINARY_DIR}/packaging/qorcConfigVersion.cmake
  DESTINATION ${qorc_cmake_dest} COMPONENT dev)

# pkg-config: the prefix is found from the file's own place, so that an
# installed tree may be moved.
file(RELATIVE_PATH QORC_PC_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
configure_file(packaging/qorc.pc.in ${CMAKE_BINARY_DIR}/packaging/qorc.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/packaging/qorc.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
