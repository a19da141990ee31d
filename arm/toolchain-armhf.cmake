# 32-bit ARM Linux, hard-float (ARMv7-A), with Debian's cross compiler g++-arm-linux-gnueabihf.
#
#   cmake -DCMAKE_TOOLCHAIN_FILE=arm/toolchain-armhf.cmake [-DLYR_ARM_SYSROOT=DIR] ...
#
# The armhf libraries that are not part of the cross toolchain (libpcap and what it needs at run
# time) come either from a multiarch install into / or from Debian packages unpacked into
# LYR_ARM_SYSROOT; arm/setup.sh makes whichever works. Programs built here run under
# qemu-arm, which CTest and gtest_discover_tests call through CMAKE_CROSSCOMPILING_EMULATOR.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(LYR_ARM_TRIPLE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${LYR_ARM_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${LYR_ARM_TRIPLE}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${LYR_ARM_TRIPLE})
# GCC notes that the way some standard-library iterators are passed changed in GCC 7.1. Every
# module here is built by one compiler, so the note concerns nothing we link.
string(APPEND CMAKE_CXX_FLAGS_INIT " -Wno-psabi")

# The toolchain file is read again for every try_compile, which sees only what is listed here.
set(LYR_ARM_SYSROOT "" CACHE PATH "Folder with unpacked armhf packages; empty when they are installed through multiarch")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES LYR_ARM_SYSROOT)

set(LYR_ARM_TOOLCHAIN_ROOT /usr/${LYR_ARM_TRIPLE})
if(LYR_ARM_SYSROOT)
    set(CMAKE_FIND_ROOT_PATH ${LYR_ARM_TOOLCHAIN_ROOT} ${LYR_ARM_SYSROOT})
    set(LYR_ARM_RUN_PREFIX ${LYR_ARM_SYSROOT})
    # libpcap.so names libraries of its own (libdbus-1, and what that needs); the linker must
    # find them to check that nothing is left undefined, and they are not on its default path.
    foreach(dir lib/${LYR_ARM_TRIPLE} usr/lib/${LYR_ARM_TRIPLE})
        string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -Wl,-rpath-link,${LYR_ARM_SYSROOT}/${dir}")
        string(APPEND CMAKE_SHARED_LINKER_FLAGS_INIT " -Wl,-rpath-link,${LYR_ARM_SYSROOT}/${dir}")
        string(APPEND CMAKE_MODULE_LINKER_FLAGS_INIT " -Wl,-rpath-link,${LYR_ARM_SYSROOT}/${dir}")
    endforeach()
else()
    # Multiarch puts armhf libraries beside the native ones, in /usr/lib/arm-linux-gnueabihf.
    set(CMAKE_FIND_ROOT_PATH ${LYR_ARM_TOOLCHAIN_ROOT} /)
    set(LYR_ARM_RUN_PREFIX ${LYR_ARM_TOOLCHAIN_ROOT})
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# qemu-arm looks up the dynamic loader and every library under the -L prefix first, then on the
# host's own paths.
find_program(LYR_QEMU_ARM qemu-arm)
if(LYR_QEMU_ARM)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${LYR_QEMU_ARM} -L ${LYR_ARM_RUN_PREFIX})
else()
    message(WARNING "qemu-arm not found (Debian's qemu-user): the build works, its tests cannot run here")
endif()
