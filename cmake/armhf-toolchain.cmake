# Cross build for 32-bit ARM (hard-float, Debian's arm-linux-gnueabihf), the
# closest Debian relative of the armeabi-v7a phones: 4-byte pointers and long,
# unsigned plain char. Test programs run under qemu-arm user-mode emulation.
# scripts/armhf.sh assembles the sysroot and passes it as SEGCORE_CROSS_SYSROOT.
set(SEGCORE_CROSS_PROCESSOR arm)
set(SEGCORE_CROSS_TRIPLET arm-linux-gnueabihf)
set(SEGCORE_CROSS_QEMU qemu-arm qemu-arm-static)
include(${CMAKE_CURRENT_LIST_DIR}/cross-toolchain.cmake)
