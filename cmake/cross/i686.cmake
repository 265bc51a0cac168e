# The board's word size on the developer's own processor: the same sizes and offsets at full speed. char is unsigned
# as on ARM. The programs find the 32-bit C library where Debian's cross compiler keeps it; no package is added to the
# machine's own libraries. Old tags, since the new ones do not hold for the libraries that a library wants.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER i686-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER i686-linux-gnu-g++)
set(TOLA_TARGET_ARCHITECTURE i386)
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(CMAKE_C_FLAGS_INIT -funsigned-char)
set(CMAKE_CXX_FLAGS_INIT -funsigned-char)
set(CMAKE_EXE_LINKER_FLAGS_INIT
    "-Wl,--dynamic-linker=/usr/i686-linux-gnu/lib/ld-linux.so.2 -Wl,--disable-new-dtags -Wl,-rpath,/usr/i686-linux-gnu/lib")
