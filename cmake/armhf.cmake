# Cross build for the camera's processor, 32-bit ARM with hardware floating point, on Debian. The libraries come from
# the folder that scripts/armhf-sysroot makes.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

get_filename_component(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot ABSOLUTE)
if(NOT EXISTS ${CMAKE_SYSROOT}/packages)
  message(FATAL_ERROR "There is no ${CMAKE_SYSROOT}: run scripts/armhf-sysroot first.")
endif()
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# Nothing here is linked with what GCC 6 compiled, so it need not be told of what has changed since.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${CMAKE_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)

# The emulator's own choice of a processor is a newer one, which would let through what a Cortex-A9 does not know. A
# library that another clock comes from is meant for the emulator, the dynamic one for this, and not for the program in
# it.
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-arm -cpu cortex-a9 -L ${CMAKE_SYSROOT} -U LD_PRELOAD)
