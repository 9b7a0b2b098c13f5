# Cross build for 64-bit ARM (Debian's aarch64-linux-gnu), the Debian relative
# of the arm64-v8a phones: 8-byte pointers and long, unsigned plain char, and
# fused multiply-add instructions that the compiler would use for a*b+c unless
# told not to (the project's CMakeLists.txt does). Test programs run under
# qemu-aarch64 user-mode emulation.
# scripts/arm64.sh assembles the sysroot and passes it as SEGCORE_CROSS_SYSROOT.
set(SEGCORE_CROSS_PROCESSOR aarch64)
set(SEGCORE_CROSS_TRIPLET aarch64-linux-gnu)
set(SEGCORE_CROSS_QEMU qemu-aarch64 qemu-aarch64-static)
include(${CMAKE_CURRENT_LIST_DIR}/cross-toolchain.cmake)
