# Cross build for AArch64 Linux with Debian's cross compiler
# (g++-aarch64-linux-gnu), run under qemu-user.
#
# LUMOKIT_ARM64_SYSROOT names a folder into which Debian's arm64 library
# packages (jsoncpp, protobuf, OpenSSL, GoogleTest) were unpacked, as
# scripts/check-device does. They are unpacked rather than installed because
# Multi-Arch packages must match the host's version exactly, and installing
# them would move the host's own -dev packages. The C and C++ runtime and the
# dynamic loader come from the cross compiler's folder, /usr/aarch64-linux-gnu.
# protoc and the openssl tool stay the host's.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES LUMOKIT_ARM64_SYSROOT)
if(NOT LUMOKIT_ARM64_SYSROOT)
  message(FATAL_ERROR "LUMOKIT_ARM64_SYSROOT: the folder of unpacked arm64 packages is not set")
endif()
set(_lk_sysroot "${LUMOKIT_ARM64_SYSROOT}")
set(_lk_cross_runtime /usr/aarch64-linux-gnu/lib)

set(CMAKE_FIND_ROOT_PATH "${_lk_sysroot}" /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The cross compiler also searches the host's /usr/include; the unpacked
# headers (OpenSSL's configuration among them) must come first.
foreach(lang C CXX)
  set(CMAKE_${lang}_STANDARD_INCLUDE_DIRECTORIES
    "${_lk_sysroot}/usr/include/aarch64-linux-gnu" "${_lk_sysroot}/usr/include")
endforeach()

# pkg-config (jsoncpp) reads the unpacked .pc files.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${_lk_sysroot}")
set(ENV{PKG_CONFIG_LIBDIR} "${_lk_sysroot}/usr/lib/aarch64-linux-gnu/pkgconfig:${_lk_sysroot}/usr/share/pkgconfig")

# Programs load the cross compiler's loader and find every library, the
# unpacked ones' own dependencies too, through their DT_RPATH; this needs no
# arm64 packages installed on the host and no environment, so processes the
# tests start find them as well.
set(_lk_libs "${_lk_sysroot}/usr/lib/aarch64-linux-gnu:${_lk_sysroot}/lib/aarch64-linux-gnu")
set(_lk_link "-Wl,-rpath-link,${_lk_libs} -Wl,--disable-new-dtags")
set(CMAKE_EXE_LINKER_FLAGS_INIT
  "${_lk_link} -Wl,--dynamic-linker=${_lk_cross_runtime}/ld-linux-aarch64.so.1 -Wl,-rpath,${_lk_cross_runtime}:${_lk_libs}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_lk_link}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${_lk_link}")

find_program(LUMOKIT_QEMU_AARCH64 NAMES qemu-aarch64-static qemu-aarch64 REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR "${LUMOKIT_QEMU_AARCH64}")
