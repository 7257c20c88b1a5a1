# The target: 32-bit big-endian PowerPC, with Debian's cross compiler. Programs run under the emulator that
# script/bootstrap finds or fetches.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ppc)
set(CMAKE_CXX_COMPILER powerpc-linux-gnu-g++)
set(CMAKE_C_COMPILER powerpc-linux-gnu-gcc)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/run-powerpc)
