// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

// What the files of a series are called.

namespace zav_shm::tool {

/// What is wrong with a pattern, or nothing.
std::string pattern_mistake(const std::string& pattern);

/// The name for a moment: the pattern with its conversions as strftime() does them, in local time.
///
/// @param utc_ns  since 1970, in nanoseconds
/// @return empty when it does not fit into a file name
std::string name_from(const std::string& pattern, std::int64_t utc_ns);

/// The same name with a number: "event-1200.h264" and 2 are "event-1200-2.h264".
std::string numbered(const std::string& name, unsigned number);

/// What a file with frames of this codec ends with: ".h264".
std::string extension_of(std::uint32_t codec);

}  // namespace zav_shm::tool
