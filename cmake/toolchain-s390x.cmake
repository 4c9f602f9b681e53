# IBM Z (64-bit, big-endian): no router, but Debian's one big-endian architecture,
# which shows byte-order mistakes:
#   cmake -S . -B build-s390x -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-s390x.cmake
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(CBSD_CROSS_TRIPLET s390x-linux-gnu)
set(CBSD_DEBIAN_ARCH s390x)
set(CBSD_QEMU_ARCH s390x)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
