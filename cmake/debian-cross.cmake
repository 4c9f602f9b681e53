# Shared part of the toolchain files: Debian's cross compiler for
# CBSD_CROSS_TRIPLET, the libraries from a sysroot made by scripts/make-sysroot.sh
# (CBSD_SYSROOT, default /opt/sysroots/<debian arch>), and qemu-user to run the
# target's binaries, which is how ctest runs the unit tests of a cross build.
set(CMAKE_SYSTEM_NAME Linux)

if(NOT CBSD_SYSROOT)
  if(DEFINED ENV{CBSD_SYSROOT})
    set(CBSD_SYSROOT "$ENV{CBSD_SYSROOT}")
  else()
    set(CBSD_SYSROOT "/opt/sysroots/${CBSD_DEBIAN_ARCH}")
  endif()
endif()
if(NOT EXISTS "${CBSD_SYSROOT}/usr/lib/${CBSD_CROSS_TRIPLET}")
  message(FATAL_ERROR "no ${CBSD_DEBIAN_ARCH} sysroot at ${CBSD_SYSROOT}: "
                      "run scripts/make-sysroot.sh ${CBSD_DEBIAN_ARCH}")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES CBSD_SYSROOT)

set(CMAKE_C_COMPILER ${CBSD_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${CBSD_CROSS_TRIPLET}-g++)
set(CMAKE_SYSROOT "${CBSD_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${CBSD_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config reads the sysroot's .pc files and prefixes their paths with it.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CBSD_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${CBSD_SYSROOT}/usr/lib/${CBSD_CROSS_TRIPLET}/pkgconfig:${CBSD_SYSROOT}/usr/share/pkgconfig")

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${CBSD_QEMU_ARCH}-static -L "${CBSD_SYSROOT}")
