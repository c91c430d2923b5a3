// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <span>

#include "apps/media/nal_unit.h"

namespace zav_shm::media {

/// Tells from the beginning of an elementary stream with start codes what it holds, by the first
/// NAL unit that exists in one of the two only: a parameter set, or an access-unit delimiter.
///
/// @return nothing when there is none in `beginning`.
std::optional<Video_Codec> guess_codec(std::span<const std::byte> beginning);

/// Whether a NAL unit of a stream that was of this codec so far begins a stream of the other one:
/// it is the parameter set that comes first there, and means nothing here.
///
/// @param head  the NAL unit's first bytes, without the start code.
/// @return nothing when more bytes are needed, and always something from 2 bytes on.
std::optional<bool> changes_codec(Video_Codec codec, std::span<const std::byte> head);

/// Names the container that the beginning of a file shows, "MP4" for instance; null when it shows
/// none. A container may hold what looks like start codes by chance.
const char* guess_container(std::span<const std::byte> beginning);

}  // namespace zav_shm::media
