# SPDX-License-Identifier: Apache-2.0
#
# 32-bit ARM with hardware floating point, by Debian's cross compiler and its packages for armhf.
# Programs run under qemu-user, which finds the libraries where Debian installs them: no -L, with
# which forked children crash.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
find_program(ZAV_SHM_EMULATOR qemu-arm REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${ZAV_SHM_EMULATOR})

include(${CMAKE_CURRENT_LIST_DIR}/debian_32_bit.cmake)
