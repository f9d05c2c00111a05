# SPDX-License-Identifier: Apache-2.0
# qorc_add_proto_library(<target> PROTO_ROOT <dir> [INCLUDE_PREFIX <dir>]
#                        PROTOS <files relative to root>...)
# Generates lite-runtime C++ for the given schemas. Generated headers are
# included by their path below the root, after INCLUDE_PREFIX when given:
# "qor/protobuf/version.pb.h", "envelope/header.pb.h".
function(qorc_add_proto_library target)
  cmake_parse_arguments(ARG "" "PROTO_ROOT;INCLUDE_PREFIX" "PROTOS;DEPENDS" ${ARGN})
  set(include_root ${CMAKE_CURRENT_BINARY_DIR}/gen)
  set(out_dir ${include_root})
  if(ARG_INCLUDE_PREFIX)
    set(out_dir ${include_root}/${ARG_INCLUDE_PREFIX})
  endif()
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
  target_include_directories(${target} SYSTEM PUBLIC $<BUILD_INTERFACE:${include_root}>
    $<BUILD_INTERFACE:${Protobuf_INCLUDE_DIRS}> $<INSTALL_INTERFACE:${QORC_INSTALL_INCLUDEDIR}>)
  # The generated sources include each other by their path below the root.
  target_include_directories(${target} PRIVATE ${out_dir})
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

# qorc_add_test(<name> SOURCES <files>... LIBS <libs>... [PRIVATE_TMP] [THREADED]
#               [PROPERTIES <ctest props>...])
# One GoogleTest executable; every test case becomes its own ctest entry.
# PRIVATE_TMP: the executable runs with a /tmp of its own (testing/private_tmp.h).
# THREADED: it exercises the threaded parts, so ThreadSanitizer runs it: its
# cases carry the ctest label "threaded", and the target "threaded_tests"
# builds every such executable.
function(qorc_add_test name)
  cmake_parse_arguments(ARG "PRIVATE_TMP;THREADED" "" "SOURCES;LIBS;PROPERTIES" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  if(ARG_PRIVATE_TMP)
    target_link_libraries(${name} PRIVATE private_tmp_main)
  else()
    target_link_libraries(${name} PRIVATE GTest::gtest_main)
  endif()
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gtest Threads::Threads)
  set(properties ${ARG_PROPERTIES})
  if(ARG_THREADED)
    list(APPEND properties LABELS threaded)
    if(NOT TARGET threaded_tests)
      add_custom_target(threaded_tests)
    endif()
    add_dependencies(threaded_tests ${name})
  endif()
  if(properties)
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES ${properties})
  else()
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60)
  endif()
endfunction()
