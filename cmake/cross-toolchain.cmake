# Shared part of the Debian cross toolchains for the ARM targets
# (armhf-toolchain.cmake, arm64-toolchain.cmake). The including file sets:
#
#   SEGCORE_CROSS_PROCESSOR  CMAKE_SYSTEM_PROCESSOR of the target
#   SEGCORE_CROSS_TRIPLET    Debian's multiarch triplet, also the compilers' prefix
#   SEGCORE_CROSS_QEMU       names of the qemu-user program that runs the target's
#                            programs on the host (tests, and the tools they start)
#
# SEGCORE_CROSS_SYSROOT (cache variable or environment) names a directory
# holding the target's libc, libstdc++, OpenCV, liblog and GoogleTest, unpacked
# from Debian's packages for that architecture; scripts/cross.sh assembles it.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${SEGCORE_CROSS_PROCESSOR})
set(CMAKE_LIBRARY_ARCHITECTURE ${SEGCORE_CROSS_TRIPLET})

if(NOT SEGCORE_CROSS_SYSROOT AND DEFINED ENV{SEGCORE_CROSS_SYSROOT})
  set(SEGCORE_CROSS_SYSROOT "$ENV{SEGCORE_CROSS_SYSROOT}")
endif()
if(NOT SEGCORE_CROSS_SYSROOT OR NOT EXISTS "${SEGCORE_CROSS_SYSROOT}/usr/include/${SEGCORE_CROSS_TRIPLET}")
  message(FATAL_ERROR "${SEGCORE_CROSS_TRIPLET} sysroot not found: set SEGCORE_CROSS_SYSROOT "
                      "(scripts/cross.sh builds one)")
endif()
set(SEGCORE_CROSS_SYSROOT "${SEGCORE_CROSS_SYSROOT}" CACHE PATH "sysroot of the target")
# try_compile projects re-read the toolchain file; hand the sysroot on to them.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES SEGCORE_CROSS_SYSROOT)

set(CMAKE_C_COMPILER ${SEGCORE_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${SEGCORE_CROSS_TRIPLET}-g++)
set(CMAKE_SYSROOT "${SEGCORE_CROSS_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${SEGCORE_CROSS_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The guest loader resolves absolute paths inside the sysroot first (-L); the
# multiarch directories are not in its built-in search list (Debian keeps them
# in ld.so.cache, which the sysroot lacks), so name them for the guest only.
# ctest runs every test program through this emulator; a test that starts
# another target program through the shell must name it too (see
# tools/CMakeLists.txt).
find_program(SEGCORE_CROSS_QEMU_PROGRAM NAMES ${SEGCORE_CROSS_QEMU})
if(SEGCORE_CROSS_QEMU_PROGRAM)
  set(CMAKE_CROSSCOMPILING_EMULATOR
      "${SEGCORE_CROSS_QEMU_PROGRAM};-L;${SEGCORE_CROSS_SYSROOT};-E;LD_LIBRARY_PATH=/lib/${SEGCORE_CROSS_TRIPLET}:/usr/lib/${SEGCORE_CROSS_TRIPLET}")
endif()
