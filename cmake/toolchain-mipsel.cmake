# MIPS32 little-endian routers (MT7621-class boards):
#   cmake -S . -B build-mipsel -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-mipsel.cmake
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(CBSD_CROSS_TRIPLET mipsel-linux-gnu)
set(CBSD_DEBIAN_ARCH mipsel)
set(CBSD_QEMU_ARCH mipsel)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
