# What the foreign architectures share. Expects arch (our name), triplet (the compiler's), multiarch (the directory of
# Debian's libraries), processor and loader; emulator is empty where the programs run as they are.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${processor})
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${multiarch})

# cmake/make-sysroot fills it. Libraries and headers are looked for there and at the compiler's own place only: what
# the machine itself has is of the wrong kind.
set(OSKERNEL_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../../build/sysroot/${arch}" CACHE PATH "Libraries of the target")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES OSKERNEL_SYSROOT)
get_filename_component(sysroot "${OSKERNEL_SYSROOT}" ABSOLUTE)
if(NOT EXISTS "${sysroot}/usr/include/${multiarch}/openssl")
  message(FATAL_ERROR "There is no OpenSSL for ${arch} in ${sysroot}: run  cmake/make-sysroot ${arch}")
endif()
set(CMAKE_FIND_ROOT_PATH "${sysroot}" "/usr/${triplet}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# OpenSSL keeps one header in the architecture's own directory, and libssl wants libcrypto from beside it.
set(library_dir "${sysroot}/usr/lib/${multiarch}")
set(CMAKE_CXX_FLAGS_INIT "-isystem \"${sysroot}/usr/include/${multiarch}\"")
# The compiler's C library lies where no loader is and none looks: programs name the loader beside it, and an rpath (the
# old kind, which holds for libraries of libraries, too) names the places. An emulator's own way, a prefix for all
# paths, would show its programs another "/".
set(link_flags "-Wl,-rpath-link,\"${library_dir}\" -Wl,--disable-new-dtags")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${link_flags}")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${link_flags} -Wl,--dynamic-linker=/usr/${triplet}/lib/${loader}")
set(CMAKE_BUILD_RPATH "${library_dir}" "/usr/${triplet}/lib")

if(emulator)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${emulator})
endif()
