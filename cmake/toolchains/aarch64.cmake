# 64-bit ARM: Debian's cross compiler, the headers and libraries of `scripts/sysroot aarch64` or of CMAKE_SYSROOT.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(ZONE_TARGET aarch64-linux-gnu)
set(ZONE_EMULATOR qemu-aarch64)
set(ZONE_DEFAULT_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../../build/sysroot/aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
