# 32-bit big-endian PowerPC: Debian's cross compiler, and the user-mode emulator for what it builds.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ppc)
set(CMAKE_CXX_COMPILER powerpc-linux-gnu-g++)
set(CMAKE_FIND_ROOT_PATH /usr/powerpc-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
# Such boxes have little room, and pages of 4 or 16 KiB: the default of 64 would pad every file to it.
add_link_options(LINKER:-z,max-page-size=16384)
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-ppc -L /usr/powerpc-linux-gnu)
