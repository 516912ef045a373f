# The aarch64 boards.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(TRIPLET aarch64-linux-gnu)
set(EMULATOR qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
