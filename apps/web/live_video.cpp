// SPDX-License-Identifier: Apache-2.0
#include "apps/web/live_video.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "ipc/monotonic_clock.h"
#include "ipc/ring_place.h"
#include "ipc/shared_memory_folder.h"

namespace zav_shm::web {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// How long a viewer waits for the first picture, and for the next one of a stream that stands
// still.
constexpr milliseconds first_picture_limit{5000};
constexpr milliseconds silence_limit{10000};

// How soon the end of the program is seen.
constexpr milliseconds look_interval{200};

// With each picture the fragment of the one before is finished, within a millisecond or two.
constexpr milliseconds fragment_wait{20};

// So that a long history does not lie in the muxer as a whole.
constexpr int units_at_once = 32;

ZAV_SHM_Frame_Subscriber::Options tap_of(const Stream_Key& key, const std::string& folder) {
    return {.producer = key.name,
            .channel = key.channel,
            .stream = key.stream,
            .from = start::newest_key,
            .start_at_key_frame = true,
            .key_frame_after_loss = true,
            .asks_for_key_frame = true,
            .folder = folder,
            .untrusting = true};
}

std::string path_of(const Stream_Key& key, const std::string& folder) {
    return ring_path(rings_folder("/" + folder), key.name, key.channel, key.stream);
}

std::chrono::nanoseconds interval_of(const ZAV_SHM_Frame_Header& header) {
    const std::int64_t by_rate = header.rate_num != 0
                                     ? ns_per_second * header.rate_den / header.rate_num
                                     : ns_per_second / 30;
    return std::chrono::nanoseconds(header.duration_us != 0 ? header.duration_us * 1000LL
                                                            : by_rate);
}

std::int64_t utc_ms_now() {
    return std::chrono::duration_cast<milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

Live_Video::Live_Video(const Stream_Key& key, const std::string& folder,
                       const std::atomic<bool>& stopping)
    : key_(key), folder_(folder), stopping_(stopping), reader_(tap_of(key, folder)) {}

std::string Live_Video::begin() {
    if (access(path_of(key_, folder_).c_str(), F_OK) != 0) {
        return "there is no history of " + key_.name + "/" + std::to_string(key_.channel) + "/" +
               std::to_string(key_.stream);
    }
    if (const auto opened = reader_.open(); !opened && opened.refused) {
        return opened.reason;
    }
    const auto end = steady_clock::now() + first_picture_limit;
    while (!stopping_ && steady_clock::now() < end) {
        if (reader_.receive(frame_, look_interval) != Receive_Status::frame) {
            continue;
        }
        if (!frame_.verified || frame_.header.codec != codec::h264) {
            return "the stream is not H.264: " +
                   (frame_.verified ? codec_name(frame_.header.codec) : std::string("unknown"));
        }
        if (!frame_.is_key_frame()) {
            continue;
        }
        first_ = frame_.header;
        published_ms_ = utc_ms_now() - (monotonic_ns() - first_.publish_ns) / ns_per_ms;
        add(frame_);
        return {};
    }
    return "no key frame has come within " + std::to_string(first_picture_limit.count() / 1000) +
           " s";
}

std::size_t Live_Video::read(std::span<char> room) {
    while (read_ == ready_.size()) {
        if (!go_on()) {
            return 0;
        }
    }
    const std::size_t count = std::min(room.size(), ready_.size() - read_);
    std::memcpy(room.data(), ready_.data() + read_, count);
    read_ += count;
    return count;
}

// @return false at the end of the video.
bool Live_Video::go_on() {
    auto made = mp4_.take(is_owed_ ? fragment_wait : milliseconds(0));
    if (!made || stopping_) {
        return false;
    }
    is_owed_ = false;
    ready_ = std::move(*made);
    read_ = 0;
    return !ready_.empty() || add_what_comes();
}

// What lies in the history at the begin goes in as a whole.
bool Live_Video::add_what_comes() {
    if (reader_.receive(frame_, look_interval) != Receive_Status::frame) {
        return steady_clock::now() - last_frame_ < silence_limit;
    }
    for (int count = 0; count < units_at_once; ++count) {
        if (!is_same_video(frame_)) {
            return false;
        }
        add(frame_);
        is_owed_ = true;
        if (reader_.receive(frame_, milliseconds(0)) != Receive_Status::frame) {
            return true;
        }
    }
    const bool goes_on = is_same_video(frame_);
    if (goes_on) {
        add(frame_);
    }
    return goes_on;
}

// A player has to be told anew of another size or codec, and times begin again with a publisher.
bool Live_Video::is_same_video(const Received_Frame& frame) const {
    const ZAV_SHM_Frame_Header& header = frame.header;
    return frame.verified && header.epoch == first_.epoch && header.codec == first_.codec &&
           header.width == first_.width && header.height == first_.height &&
           header.pts_ns >= first_.pts_ns;
}

void Live_Video::add(const Received_Frame& frame) {
    last_frame_ = steady_clock::now();
    mp4_.add(frame.payload(), std::chrono::nanoseconds(frame.header.pts_ns - first_.pts_ns),
             interval_of(frame.header), frame.is_key_frame());
}

}  // namespace zav_shm::web
