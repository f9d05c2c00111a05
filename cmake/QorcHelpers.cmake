# qorc_add_proto_library(<target> PROTO_ROOT <dir> PROTOS <files relative to root>...)
# Generates lite-runtime C++ for the given schemas. Generated headers are
# included by their path below the root, e.g. "qor/protobuf/version.pb.h".
function(qorc_add_proto_library target)
  cmake_parse_arguments(ARG "" "PROTO_ROOT" "PROTOS;DEPENDS" ${ARGN})
  set(out_dir ${CMAKE_CURRENT_BINARY_DIR}/gen)
  set(srcs)
  foreach(proto ${ARG_PROTOS})
    string(REGEX REPLACE "\\.proto$" "" stem ${proto})
    set(cc ${out_dir}/${stem}.pb.cc)
    set(h ${out_dir}/${stem}.pb.h)
    add_custom_command(
      OUTPUT ${cc} ${h}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${out_dir}
      COMMAND protobuf::protoc --cpp_out=${out_dir} -I ${ARG_PROTO_ROOT} ${ARG_PROTO_ROOT}/${proto}
      DEPENDS ${ARG_PROTO_ROOT}/${proto} protobuf::protoc
      COMMENT "protoc ${proto}"
      VERBATIM)
    list(APPEND srcs ${cc})
  endforeach()
  add_library(${target} STATIC ${srcs})
  target_include_directories(${target} SYSTEM PUBLIC $<BUILD_INTERFACE:${out_dir}>
    $<BUILD_INTERFACE:${Protobuf_INCLUDE_DIRS}> $<INSTALL_INTERFACE:${QORC_INSTALL_INCLUDEDIR}>)
  # Installed, the library links the consumer's protobuf-lite.
  if(QORC_PROTOBUF_LITE_STATIC)
    target_link_libraries(${target} PUBLIC $<BUILD_INTERFACE:${QORC_PROTOBUF_LITE_STATIC}>
      $<INSTALL_INTERFACE:protobuf::libprotobuf-lite> Threads::Threads ${ARG_DEPENDS})
  else()
    target_link_libraries(${target} PUBLIC protobuf::libprotobuf-lite ${ARG_DEPENDS})
  endif()
  # Generated code is not ours to warn about.
  target_compile_options(${target} PRIVATE -w)
endfunction()

# qorc_add_test(<name> SOURCES <files>... LIBS <libs>... [PRIVATE_TMP] [PROPERTIES <ctest props>...])
# One GoogleTest executable; every test case becomes its own ctest entry.
# PRIVATE_TMP: the executable runs with a /tmp of its own (testing/private_tmp.h).
function(qorc_add_test name)
  cmake_parse_arguments(ARG "PRIVATE_TMP" "" "SOURCES;LIBS;PROPERTIES" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  if(ARG_PRIVATE_TMP)
    target_link_libraries(${name} PRIVATE private_tmp_main)
  else()
    target_link_libraries(${name} PRIVATE GTest::gtest_main)
  endif()
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gtest Threads::Threads)
  if(ARG_PROPERTIES)
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES ${ARG_PROPERTIES})
  else()
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60)
  endif()
endfunction()
