# The board's processor, 32-bit ARM, by Debian's cross compiler. The emulator runs the tests on any machine.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(TOLA_TARGET_ARCHITECTURE armhf)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
# No notes on what the call convention of compilers before 7 was.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-arm;-L;/usr/arm-linux-gnueabihf)
