// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <vector>

#include "apps/trace/trace_source.h"

namespace zav_shm::trace {

/// Where to begin to read each stream of a trace, so that it is decoded from a moment on: the
/// offset of its last frame at or before that moment at which a decoder may begin. A stream without
/// such a frame begins with its last one before the moment, or else with its first one behind it;
/// one without any frame at the end of the file.
///
/// The indexes are read from the last one back, as far as needed. The last one is found through the
/// trace's end, or without one from the end of the file. Where indexes are missing or damaged the
/// frames themselves are read, up to the damage.
///
/// @param moment_ns  as moment_of() of the frames
/// @return an offset for each stream; none when the file is no trace.
std::vector<std::uint64_t> find_begins(const Trace_Source& source, std::int64_t moment_ns);

}  // namespace zav_shm::trace
