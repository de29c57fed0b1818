# Cross build for 32-bit ARM (Debian armhf) against a sysroot made by scripts/armhf-sysroot.sh.
# Pass -DVOK_ARMHF_SYSROOT=DIR. Test programs run under qemu-arm with that sysroot.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

if(NOT VOK_ARMHF_SYSROOT)
  set(VOK_ARMHF_SYSROOT "$ENV{VOK_ARMHF_SYSROOT}")
endif()
if(NOT VOK_ARMHF_SYSROOT)
  message(FATAL_ERROR "VOK_ARMHF_SYSROOT is not set")
endif()
# Compiler checks run in nested projects that must see the sysroot too.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VOK_ARMHF_SYSROOT)
set(CMAKE_SYSROOT "${VOK_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${VOK_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-arm;-L;${VOK_ARMHF_SYSROOT}")

set(ENV{PKG_CONFIG_DIR} "")
set(ENV{PKG_CONFIG_LIBDIR}
    "${VOK_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${VOK_ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${VOK_ARMHF_SYSROOT}")
