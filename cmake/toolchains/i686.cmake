# 32-bit x86; an x86-64 kernel runs its programs as they are.
set(arch i686)
set(triplet i686-linux-gnu)
set(multiarch i386-linux-gnu)
set(processor i686)
set(loader ld-linux.so.2)
set(emulator)
include("${CMAKE_CURRENT_LIST_DIR}/foreign.cmake")
