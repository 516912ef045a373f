# A cross build for the boards, with Debian's cross compiler; tests run under qemu-user. A toolchain file includes this
# with what differs: CMAKE_SYSTEM_PROCESSOR, the compiler's TRIPLET, the EMULATOR.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${TRIPLET}-gcc) # GoogleTest's build asks for one
set(CMAKE_CXX_COMPILER ${TRIPLET}-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR ${EMULATOR};-L;/usr/${TRIPLET})
set(CMAKE_FIND_ROOT_PATH /usr/${TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
