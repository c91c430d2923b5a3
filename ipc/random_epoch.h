// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace zav_shm {

/// A number that no other instance of a publisher or center has, as far as chance allows; never 0.
std::uint64_t random_epoch();

}  // namespace zav_shm
