// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <string>

#include "apps/watch/collector.h"

namespace watched {

using namespace zav_shm::watch;

/// The stream of this producer, channel 0, stream 0; an empty one when there is none.
inline Stream stream_of(const Snapshot& snapshot, const std::string& producer) {
    const auto found =
        std::find_if(snapshot.streams.begin(), snapshot.streams.end(), [&](const Stream& stream) {
            return stream.id == Stream_Id{producer, 0, 0};
        });
    return found != snapshot.streams.end() ? *found : Stream{};
}

}  // namespace watched
