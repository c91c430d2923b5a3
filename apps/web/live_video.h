// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <chrono>
#include <optional>
#include <span>
#include <string>

#include "apps/web/fragmented_mp4.h"
#include "apps/web/stream_list.h"
#include "frame/frame_subscriber.h"

namespace zav_shm::web {

/// The live picture of one stream for one viewer, as bytes of fragmented MP4: from the newest key
/// frame in the history on, without an end. Each viewer reads the history with a cursor of its own,
/// so a slow one is overtaken and goes on at a later key frame, and costs nobody anything.
///
/// Owner    of a reader without a name, and of a pipeline.
/// Threads  one at a time.
/// Errors   end the video: the stream is not there or not H.264, ends, changes its format, or its
///          publisher is started again. The page asks anew.
class Live_Video {
public:
    /// @param stopping  ends the video within a second when it becomes true.
    Live_Video(const Stream_Key& key, const std::string& folder, const std::atomic<bool>& stopping);

    /// Waits for the first key frame.
    ///
    /// @return why there is no picture, in a line; empty when there is one.
    std::string begin();

    /// Fills `room` as soon as there is something.
    ///
    /// @return how many bytes; 0 at the end.
    std::size_t read(std::span<char> room);

    /// When time 0 of the video was published, in milliseconds since 1970.
    std::int64_t published_ms() const { return published_ms_; }

private:
    bool go_on();
    bool add_what_comes();
    bool is_same_video(const Received_Frame& frame) const;
    void add(const Received_Frame& frame);

    const Stream_Key key_;
    const std::string folder_;
    const std::atomic<bool>& stopping_;
    ZAV_SHM_Frame_Subscriber reader_;
    Fragmented_Mp4 mp4_;
    Received_Frame frame_;
    ZAV_SHM_Frame_Header first_{};
    std::chrono::steady_clock::time_point last_frame_{};
    std::int64_t published_ms_ = 0;
    std::string ready_;     // made and not read yet ...
    std::size_t read_ = 0;  // ... but for its first bytes
    bool is_owed_ = false;  // a fragment, for what was added
};

}  // namespace zav_shm::web
