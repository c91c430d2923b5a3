// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>

namespace zav_shm {

// Key frames in what follows are all frames at which a decoder may begin: recovery points, too.

/// Where reading begins in the history of a stream.
struct Start {
    enum class At { newest, newest_key, last_key_frame, oldest, back };
    At at = At::newest;
    std::chrono::nanoseconds span{0};  // of `back`
};

namespace start {

/// With the frame that is published next. No frame is handed out that is older.
inline constexpr Start newest{Start::At::newest, {}};

/// With the newest key frame of a live stream: a picture at once. As newest where the publisher has
/// left, or was killed.
inline constexpr Start newest_key{Start::At::newest_key, {}};

/// With the newest key frame that there is, however old it is. In a history without one, as newest.
inline constexpr Start last_key_frame{Start::At::last_key_frame, {}};

/// With the oldest frame that there is.
inline constexpr Start oldest{Start::At::oldest, {}};

/// With the last key frame that is at least this old, or the oldest one in a history that is
/// shorter. A stream without key frames begins with its first frame that is not older.
constexpr Start back(std::chrono::nanoseconds span) { return {Start::At::back, span}; }

}  // namespace start

/// Where a subscriber goes on that was slower than the history is long.
enum class Overflow_Policy {
    drop_oldest,           // an eighth of the history behind the oldest frame
    drop_until_key_frame,  // with the first key frame behind that, or the next that comes; as
                           // drop_oldest in a stream that has had none since its publisher began
    newest_only            // with the newest frame, always: also where no frame was overtaken
};

}  // namespace zav_shm
