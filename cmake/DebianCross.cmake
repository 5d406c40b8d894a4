# Debian's cross compiler for another machine, whose programs run under qemu here. SHD_TARGET is its
# name in Debian's tool names, SHD_EMULATOR the program; scripts/cross gives both.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES SHD_TARGET SHD_EMULATOR)
set(CMAKE_SYSTEM_NAME Linux)
string(REGEX REPLACE "-.*" "" CMAKE_SYSTEM_PROCESSOR ${SHD_TARGET})
set(CMAKE_C_COMPILER ${SHD_TARGET}-gcc)
set(CMAKE_CXX_COMPILER ${SHD_TARGET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${SHD_TARGET})
# Of vectors passed by value: the layout is the same since GCC 7.1.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
# A path for libraries that counts for what they need in turn, too.
set(CMAKE_EXE_LINKER_FLAGS_INIT -Wl,--disable-new-dtags)
set(CMAKE_CROSSCOMPILING_EMULATOR ${SHD_EMULATOR} -L /usr/${SHD_TARGET})
