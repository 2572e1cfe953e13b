# 32-bit ARM with hardware floating point, run by qemu-arm.
set(arch armhf)
set(triplet arm-linux-gnueabihf)
set(multiarch arm-linux-gnueabihf)
set(processor armv7l)
set(loader ld-linux-armhf.so.3)
set(emulator qemu-arm)
include("${CMAKE_CURRENT_LIST_DIR}/foreign.cmake")
