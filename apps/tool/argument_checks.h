// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

// What makes an argument's text acceptable. Each returns what is wrong with it, or an empty text.

namespace zav_shm::tool {

/// A whole number from `least` to `greatest`, in decimal digits only.
std::string whole_number_mistake(const std::string& text, std::uint64_t least,
                                 std::uint64_t greatest);

/// A number from `least` to `greatest`, with decimals if need be.
std::string number_mistake(const std::string& text, double least, double greatest);

/// Frames per second.
std::string rate_mistake(const std::string& text);

/// The name of a producer or consumer.
std::string name_mistake(const std::string& text);

/// The name of one folder below /dev/shm.
std::string folder_mistake(const std::string& text);

/// Whether two names lead, or would lead, to the same file. Devices and pipes are none here:
/// nothing in them is overwritten.
bool is_same_file(const std::string& one, const std::string& other);

/// One of two words.
std::string choice_mistake(const std::string& text, const std::string& one,
                           const std::string& other);

}  // namespace zav_shm::tool
