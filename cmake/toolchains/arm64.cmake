# 64-bit ARM, run by qemu-aarch64.
set(arch arm64)
set(triplet aarch64-linux-gnu)
set(multiarch aarch64-linux-gnu)
set(processor aarch64)
set(loader ld-linux-aarch64.so.1)
set(emulator qemu-aarch64)
include("${CMAKE_CURRENT_LIST_DIR}/foreign.cmake")
