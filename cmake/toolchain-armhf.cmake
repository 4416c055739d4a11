# Cross build for the node: 32-bit ARM, hard-float (Debian's
# g++-arm-linux-gnueabihf). Test programs run under qemu-user emulation, so
# ctest (and gtest discovery) works on an x86_64 build machine:
#
#   cmake -S . -B build-armhf -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
#   cmake --build build-armhf && ctest --test-dir build-armhf -j2 --output-on-failure
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(NODETRACE_CROSS_TRIPLE arm-linux-gnueabihf)
set(NODETRACE_CROSS_SYSROOT /usr/${NODETRACE_CROSS_TRIPLE})

set(CMAKE_C_COMPILER ${NODETRACE_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${NODETRACE_CROSS_TRIPLE}-g++)
# The cross binutils; CMAKE_NM in particular is what the symbol checks use.
find_program(CMAKE_AR ${NODETRACE_CROSS_TRIPLE}-ar REQUIRED)
find_program(CMAKE_RANLIB ${NODETRACE_CROSS_TRIPLE}-ranlib REQUIRED)
find_program(CMAKE_NM ${NODETRACE_CROSS_TRIPLE}-nm REQUIRED)
find_program(CMAKE_OBJDUMP ${NODETRACE_CROSS_TRIPLE}-objdump REQUIRED)
find_program(CMAKE_READELF ${NODETRACE_CROSS_TRIPLE}-readelf REQUIRED)
find_program(CMAKE_STRIP ${NODETRACE_CROSS_TRIPLE}-strip REQUIRED)

# Runs the ARM programs (tests, gtest discovery) on the build machine. -L
# points the emulator at the ARM dynamic loader and libraries.
find_program(NODETRACE_QEMU_ARM qemu-arm REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR "${NODETRACE_QEMU_ARM};-L;${NODETRACE_CROSS_SYSROOT}")

# Kept in addition to roots given on the command line (an install tree of
# the target on the build machine, say).
list(APPEND CMAKE_FIND_ROOT_PATH ${NODETRACE_CROSS_SYSROOT})
list(REMOVE_DUPLICATES CMAKE_FIND_ROOT_PATH)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# 64-bit time_t and off_t on the 32-bit node (glibc 2.34 and later), so that
# time conversions keep working after January 2038 and files may pass 2 GiB.
set(CMAKE_C_FLAGS_INIT "-D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64")
# -Wno-psabi: GCC notes that the ARM argument passing of some types changed
# in GCC 7.1; everything here is built by one compiler.
set(CMAKE_CXX_FLAGS_INIT "-D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64 -Wno-psabi")
