# SPDX-License-Identifier: Apache-2.0
#
# The fast 32-bit check: runs natively on x86-64. What it cannot show is in docs/arm.md.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)

# Of gcc-12-multilib. It brings the 32-bit C library, but looks for that library's headers where
# only libc6-dev:i386 has them; they are the same as the native ones.
set(CMAKE_C_COMPILER gcc-12)
set(CMAKE_CXX_COMPILER g++-12)
set(CMAKE_C_FLAGS_INIT -m32)
set(CMAKE_CXX_FLAGS_INIT "-m32 -idirafter /usr/include/x86_64-linux-gnu")
set(CMAKE_EXE_LINKER_FLAGS_INIT -m32)
set(CMAKE_MODULE_LINKER_FLAGS_INIT -m32)
set(CMAKE_SHARED_LINKER_FLAGS_INIT -m32)

include(${CMAKE_CURRENT_LIST_DIR}/debian_32_bit.cmake)
