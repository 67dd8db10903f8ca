# 32-bit ARM from an unpacked sysroot (scripts/armhf-sysroot.sh), its programs run under qemu.
# The sysroot's folder: -DARMHF_SYSROOT=DIR, or the environment's ORVA_ARMHF_SYSROOT, or
# build/armhf-sysroot in the source folder.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(ARMHF_SYSROOT "" CACHE PATH "folder of unpacked armhf packages")
if(NOT ARMHF_SYSROOT)
  if(DEFINED ENV{ORVA_ARMHF_SYSROOT})
    set(ARMHF_SYSROOT $ENV{ORVA_ARMHF_SYSROOT})
  else()
    get_filename_component(ARMHF_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot ABSOLUTE)
  endif()
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ARMHF_SYSROOT)

set(CMAKE_SYSROOT ${ARMHF_SYSROOT})
set(CMAKE_FIND_ROOT_PATH ${ARMHF_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR}
  ${ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${ARMHF_SYSROOT}/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${ARMHF_SYSROOT})
set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-arm-static;-L;${ARMHF_SYSROOT}")
