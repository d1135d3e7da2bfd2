# Debian i386 with ARM's unsigned char: runs natively on a kernel with 32-bit emulation, at full speed and
# with the sanitizers, and finds most of what a 32-bit ARM would. VEX_SYSROOT as in armhf.cmake.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER i686-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER i686-linux-gnu-g++)
set(CMAKE_C_FLAGS_INIT "-funsigned-char")
set(CMAKE_CXX_FLAGS_INIT "-funsigned-char")
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VEX_SYSROOT)
set(CMAKE_SYSROOT "${VEX_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${VEX_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR "${VEX_SYSROOT}/lib/ld-linux.so.2"
    --library-path "${VEX_SYSROOT}/lib/i386-linux-gnu:${VEX_SYSROOT}/usr/lib/i386-linux-gnu")
