# The armhf boards.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(TRIPLET arm-linux-gnueabihf)
set(EMULATOR qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
