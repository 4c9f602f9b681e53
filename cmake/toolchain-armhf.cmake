# 32-bit ARM routers with hardware floating point (ARMv7):
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CBSD_CROSS_TRIPLET arm-linux-gnueabihf)
set(CBSD_DEBIAN_ARCH armhf)
set(CBSD_QEMU_ARCH arm)
# Silence the notes about the ARM calling convention change of GCC 7.1.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
