// SPDX-License-Identifier: Apache-2.0
#include "apps/rtspd/stream_hub.h"

#include <pthread.h>

#include <algorithm>
#include <utility>

#include "gst/format_caps.h"
#include "ipc/monotonic_clock.h"

namespace zav_shm::rtspd {

namespace {

using std::chrono::milliseconds;

// A picture that is older is not shown as if it were of now.
constexpr std::int64_t live_span_ns = 10 * ns_per_second;
constexpr milliseconds wait_for_frame{1000};

ZAV_SHM_Frame_Subscriber::Options subscription(const Stream_Hub::Options& options) {
    ZAV_SHM_Frame_Subscriber::Options subscription;
    subscription.producer = options.address.name;
    subscription.channel = options.address.channel;
    subscription.stream = options.address.stream;
    subscription.folder = options.folder;
    subscription.from = start::newest_key;
    subscription.start_at_key_frame = true;
    subscription.key_frame_after_loss = true;
    // Its clients' sessions must outlive whatever a publisher does to its file.
    subscription.untrusting = true;
    return subscription;
}

GstBuffer* copied(std::span<const std::byte> bytes) {
    return gst_buffer_new_memdup(bytes.data(), bytes.size());
}

}  // namespace

Stream_Hub::Stream_Hub(Options options)
    : options_(std::move(options)),
      subscriber_(subscription(options_)),
      history_(options_.bytes_max),
      thread_([this] { read_ring(); }) {}

Stream_Hub::~Stream_Hub() {
    stopping_ = true;
    subscriber_.close();
    thread_.join();
}

std::optional<Stream_Hub::Run> Stream_Hub::wait_for_picture(milliseconds limit) {
    std::unique_lock lock(mutex_);
    const bool found = news_.wait_for(lock, limit, [this] {
        return kind_ && is_live() && history_.newest_entry() != history_.end();
    });
    return found ? std::optional(Run{run_, *kind_, history_.at(history_.newest_entry())})
                 : std::nullopt;
}

Stream_Hub::Read Stream_Hub::read(Place& place, Unit& unit, const std::atomic<bool>& interrupted) {
    std::unique_lock lock(mutex_);
    news_.wait(lock, [&] { return interrupted || place.run != run_ || catches_up(place); });
    if (interrupted) {
        return Read::interrupted;
    }
    if (place.run != run_) {
        return Read::ended;
    }
    if (!is_due(place)) {
        const auto pause = std::chrono::nanoseconds(place.may_go_ns - monotonic_ns());
        news_.wait_for(lock, pause, [&] { return interrupted || is_due(place); });
        if (interrupted) {
            return Read::interrupted;
        }
        // Meanwhile the history may have gone on.
        if (place.run != run_ || !catches_up(place)) {
            lock.unlock();
            return read(place, unit, interrupted);
        }
    }
    unit = history_.at(place.next++);
    place.may_go_ns =
        std::max(place.may_go_ns, monotonic_ns()) +
        static_cast<std::int64_t>(unit.buffer.bytes()) * ns_per_second / history_bytes_per_second;
    unit.is_discontinuous = unit.is_discontinuous || std::exchange(place.is_gap, false);
    return Read::unit;
}

// Puts a client that is new, or was too slow, to the newest entry. True when there is a unit.
bool Stream_Hub::catches_up(Place& place) {
    if (place.next < history_.first()) {
        const bool is_new = place.next == 0;
        const std::uint64_t entry = history_.newest_entry();
        if (entry == history_.end() || (is_new && !is_live())) {
            place.next = is_new ? 0 : place.next;
            return false;
        }
        if (!is_new) {
            place.passed_over += entry - place.next;
            counters_.passed_over += entry - place.next;
        }
        place.next = entry;
        place.is_gap = true;
        place.history_end = history_.end();
        place.may_go_ns = 0;
    }
    return place.next < history_.end();
}

bool Stream_Hub::is_due(const Place& place) const {
    return place.next >= place.history_end || monotonic_ns() >= place.may_go_ns;
}

void Stream_Hub::wake() {
    // With the mutex, so that no reader is between its look and its sleep.
    const std::lock_guard lock(mutex_);
    news_.notify_all();
}

bool Stream_Hub::is_live() const { return monotonic_ns() - newest_written_ns_ <= live_span_ns; }

std::string Stream_Hub::trouble() const {
    const std::lock_guard lock(mutex_);
    return trouble_;
}

Stream_Hub::Counters Stream_Hub::counters() const {
    const std::lock_guard lock(mutex_);
    return counters_;
}

void Stream_Hub::read_ring() {
    pthread_setname_np(pthread_self(), "rtspd_hub");
    // A tap asks no center, so what it says is told again by reason() below.
    static_cast<void>(subscriber_.open());
    Received_Frame frame;
    while (!stopping_) {
        switch (subscriber_.receive(frame, wait_for_frame)) {
            case Receive_Status::frame:
                take(frame);
                break;
            case Receive_Status::timeout: {
                std::string reason = subscriber_.reason();
                const std::lock_guard lock(mutex_);
                trouble_ = reason.empty() ? "no key frame came" : std::move(reason);
                break;
            }
            case Receive_Status::closed:
                return;
        }
    }
}

void Stream_Hub::take(const Received_Frame& frame) {
    has_gap_ = has_gap_ || frame.before.any() || frame.epoch_changed ||
               (frame.header.flags & frame_flag::discontinuity) != 0;
    std::string reason;
    const auto found = read_unit(frame, frame.payload(), reason);
    if (!found) {
        refuse(frame, "its frames " + reason);
    } else if (found->bytes.empty()) {
        refuse(frame, "its frames are empty");
    } else if (found->bytes.size() > options_.bytes_max / 2) {
        {
            const std::lock_guard lock(mutex_);
            ++counters_.too_large;
        }
        refuse(frame, "a frame has " + std::to_string(found->bytes.size()) +
                          " bytes, and --cache allows " + std::to_string(options_.bytes_max / 2));
    } else {
        publish(frame, *found);
    }
}

void Stream_Hub::refuse(const Received_Frame& /*frame*/, const std::string& reason) {
    has_gap_ = true;
    const std::lock_guard lock(mutex_);
    ++counters_.refused;
    trouble_ = reason;
}

void Stream_Hub::publish(const Received_Frame& frame, const Stream_Unit& found) {
    // A publisher may write any time there.
    const std::int64_t written_ns = std::min(frame.header.publish_ns, frame.received_ns);
    Unit unit;
    unit.buffer = Buffer_Reference(copied(found.bytes));
    unit.time_ns = timeline_.place(frame.header.pts_ns, written_ns, frame.epoch_changed);
    unit.duration_ns = std::int64_t{frame.header.duration_us} * 1000;
    unit.is_entry = frame.is_entry_point() || gst::is_every_frame_a_key_frame(found.kind.codec);
    unit.is_discontinuous = std::exchange(has_gap_, false);
    const std::lock_guard lock(mutex_);
    if (kind_ != found.kind) {
        kind_ = found.kind;
        ++run_;
        history_.clear();
    }
    history_.add(std::move(unit));
    newest_written_ns_ = written_ns;
    trouble_.clear();
    ++counters_.units;
    news_.notify_all();
}

}  // namespace zav_shm::rtspd
