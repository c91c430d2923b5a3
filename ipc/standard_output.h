// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <iostream>

namespace zav_shm {

/// std::cout, for objects of static storage, too: one that is built before the initialisers of the
/// file that prints have run would meet a stream that nobody has made, and crash.
inline std::ostream& standard_output() {
    static const std::ios_base::Init makes_the_stream;
    return std::cout;
}

}  // namespace zav_shm
