# SPDX-License-Identifier: Apache-2.0
# Cross build for 32-bit ARM hosts (Debian armhf) with Debian's
# g++-arm-linux-gnueabihf. The C library comes with the compiler; the other
# libraries come from a sysroot made by scripts/fetch-armhf-sysroot.sh:
#   cmake -S . -B build/armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/armhf.cmake \
#         -DQORC_SYSROOT=build/sysroot-armhf
# Tests and test discovery run under qemu-arm-static.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(QORC_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../../build/sysroot-armhf" CACHE PATH
    "armhf libraries fetched by scripts/fetch-armhf-sysroot.sh")
get_filename_component(QORC_SYSROOT "${QORC_SYSROOT}" ABSOLUTE)
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QORC_SYSROOT)
if(NOT EXISTS "${QORC_SYSROOT}/.complete")
  message(FATAL_ERROR "No armhf sysroot at ${QORC_SYSROOT}: run scripts/fetch-armhf-sysroot.sh")
endif()
set(QORC_CROSS_LIBC /usr/arm-linux-gnueabihf)

# Libraries, headers and CMake packages from the sysroot; programs (protoc)
# from the build machine.
set(CMAKE_FIND_ROOT_PATH "${QORC_SYSROOT}" "${QORC_CROSS_LIBC}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(Protobuf_PROTOC_EXECUTABLE /usr/bin/protoc CACHE FILEPATH "protoc of the build machine")

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static -L "${QORC_CROSS_LIBC}")
set(QORC_DEB_ARCHITECTURE armhf)
# Debian's multiarch layout for what the packages install (GNUInstallDirs
# picks it only for native builds).
set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH "Object code libraries")
# GCC notes that it passes some arguments differently since 7.1; nothing here
# links code built by an older compiler.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
