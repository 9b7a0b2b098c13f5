# Cross build for 32-bit ARM (hard-float, Debian's arm-linux-gnueabihf), the
# closest Debian relative of the armeabi-v7a phones: 4-byte pointers and long,
# unsigned plain char. Test programs run under qemu-arm user-mode emulation.
#
# SEGCORE_ARMHF_SYSROOT (cache variable or environment) names a directory
# holding the armhf libc, libstdc++, OpenCV and GoogleTest, unpacked from
# Debian's armhf packages; scripts/armhf.sh assembles it.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

if(NOT SEGCORE_ARMHF_SYSROOT AND DEFINED ENV{SEGCORE_ARMHF_SYSROOT})
  set(SEGCORE_ARMHF_SYSROOT "$ENV{SEGCORE_ARMHF_SYSROOT}")
endif()
if(NOT SEGCORE_ARMHF_SYSROOT OR NOT EXISTS "${SEGCORE_ARMHF_SYSROOT}/usr/include")
  message(FATAL_ERROR "armhf sysroot not found: set SEGCORE_ARMHF_SYSROOT (scripts/armhf.sh builds one)")
endif()
set(SEGCORE_ARMHF_SYSROOT "${SEGCORE_ARMHF_SYSROOT}" CACHE PATH "armhf sysroot")
# try_compile projects re-read this file; hand the sysroot on to them.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES SEGCORE_ARMHF_SYSROOT)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_SYSROOT "${SEGCORE_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${SEGCORE_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The guest loader resolves absolute paths inside the sysroot first (-L); the
# multiarch directories are not in its built-in search list (Debian keeps them
# in ld.so.cache, which the sysroot lacks), so name them for the guest only.
find_program(SEGCORE_QEMU_ARM NAMES qemu-arm qemu-arm-static)
if(SEGCORE_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${SEGCORE_QEMU_ARM};-L;${SEGCORE_ARMHF_SYSROOT};-E;LD_LIBRARY_PATH=/lib/arm-linux-gnueabihf:/usr/lib/arm-linux-gnueabihf")
endif()
