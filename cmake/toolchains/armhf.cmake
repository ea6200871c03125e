# 32-bit ARM with hardware floating point: Debian's cross compiler, the headers and libraries of `scripts/sysroot armhf` or of CMAKE_SYSROOT.
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(ZONE_TARGET arm-linux-gnueabihf)
set(ZONE_EMULATOR qemu-arm)
set(ZONE_DEFAULT_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../../build/sysroot/armhf)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
