# What all toolchains have in common. Each sets, before it includes this, CMAKE_SYSTEM_PROCESSOR and
#   ZONE_TARGET           the prefix of the compiler's programs, and the folder of the libraries below /usr/lib
#   ZONE_EMULATOR         the program of qemu-user that runs the unit tests
#   ZONE_DEFAULT_SYSROOT  used when CMAKE_SYSROOT is not given
set(CMAKE_SYSTEM_NAME Linux)

# CMake reads this file again for each try of the compiler, without the command line's variables.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES CMAKE_SYSROOT)
if(NOT CMAKE_SYSROOT)
  get_filename_component(CMAKE_SYSROOT ${ZONE_DEFAULT_SYSROOT} ABSOLUTE)
endif()
if(NOT IS_DIRECTORY ${CMAKE_SYSROOT}/usr/include)
  message(FATAL_ERROR "There are no headers below ${CMAKE_SYSROOT}: run scripts/sysroot, or give CMAKE_SYSROOT")
endif()

# -DCMAKE_CXX_COMPILER=... names another one.
if(NOT CMAKE_C_COMPILER)
  set(CMAKE_C_COMPILER ${ZONE_TARGET}-gcc)
endif()
if(NOT CMAKE_CXX_COMPILER)
  set(CMAKE_CXX_COMPILER ${ZONE_TARGET}-g++)
endif()
# Debian's folders of libraries; the compiler's own search knows them, CMake's does not.
set(CMAKE_LIBRARY_ARCHITECTURE ${ZONE_TARGET})

# Programs are the building machine's, all the rest is the device's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    ${CMAKE_SYSROOT}/usr/lib/${ZONE_TARGET}/pkgconfig:${CMAKE_SYSROOT}/usr/lib/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

find_program(ZONE_EMULATOR_FILE ${ZONE_EMULATOR})
if(ZONE_EMULATOR_FILE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${ZONE_EMULATOR_FILE} -L ${CMAKE_SYSROOT})
endif()
