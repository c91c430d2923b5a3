# SPDX-License-Identifier: Apache-2.0
#
# What the 32-bit toolchains have in common; they include it at their end.

# time_t of 64 bits: seconds since 1970 do not fit into 31 bits after January 2038.
string(APPEND CMAKE_CXX_FLAGS_INIT " -D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64")

# A library of the build machine must not be found instead; programs of it may.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/pkgconfig:/usr/share/pkgconfig)
