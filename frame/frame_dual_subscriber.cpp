// SPDX-License-Identifier: Apache-2.0
#include "frame/frame_dual_subscriber.h"

#include <algorithm>
#include <utility>

#include "ipc/deadline.h"

using namespace std::chrono_literals;
using zav_shm::Receive_Status;

namespace {

// During a change both streams are looked at in turn; the wanted key frame waits for one look at
// the other at most.
constexpr auto look = 5ms;

// What comes before a key frame is of no use to whoever changes over. The history has one that is
// recent: a change need not wait for the next.
ZAV_SHM_Frame_Subscriber::Options to_change_to(ZAV_SHM_Frame_Subscriber::Options options,
                                               int stream) {
    options.stream = stream;
    options.from = zav_shm::start::last_key_frame;
    options.start_at_key_frame = true;
    return options;
}

}  // namespace

ZAV_SHM_Frame_Dual_Subscriber::ZAV_SHM_Frame_Dual_Subscriber(const Options& main_options,
                                                             int sub_stream)
    : first_(main_options.from) {
    subscribers_[main] =
        std::make_unique<ZAV_SHM_Frame_Subscriber>(to_change_to(main_options, main_options.stream));
    subscribers_[sub] =
        std::make_unique<ZAV_SHM_Frame_Subscriber>(to_change_to(main_options, sub_stream));
}

ZAV_SHM_Frame_Dual_Subscriber::~ZAV_SHM_Frame_Dual_Subscriber() { close(); }

ZAV_SHM_Frame_Dual_Subscriber::Opened ZAV_SHM_Frame_Dual_Subscriber::open() {
    open_ = true;
    current_ = wanted_;
    last_published_ns_ = 0;
    Opened opened = of(current_).open();
    of(current_).seek(first_);
    return opened;
}

void ZAV_SHM_Frame_Dual_Subscriber::close() {
    open_ = has_key_frame_ = false;
    for (const auto& subscriber : subscribers_) {
        subscriber->close();
    }
}

ZAV_SHM_Frame_Dual_Subscriber::Opened ZAV_SHM_Frame_Dual_Subscriber::select(Stream stream,
                                                                            Change change) {
    if (is_changing() && stream == current_) {
        of(wanted_).close();
        has_key_frame_ = false;
    }
    wanted_ = stream;
    change_ = change;
    return open_ ? of(wanted_).open() : Opened();
}

// For a change without a gap, one that is not older than what came out: the pictures between would
// be seen twice.
bool ZAV_SHM_Frame_Dual_Subscriber::find_wanted_key_frame() {
    while (!has_key_frame_ && of(wanted_).receive(key_frame_, 0ms) == Receive_Status::frame) {
        has_key_frame_ =
            change_ == Change::at_once ||
            (key_frame_.is_entry_point() && key_frame_.header.publish_ns >= last_published_ns_);
    }
    return has_key_frame_;
}

// Once the wanted key frame is here, frames of the present stream that were published before it
// still come out; then the change comes about.
bool ZAV_SHM_Frame_Dual_Subscriber::take_during_change(zav_shm::Received_Frame& frame) {
    if (!find_wanted_key_frame()) {
        return false;
    }
    if (change_ == Change::gapless && of(current_).receive(frame, 0ms) == Receive_Status::frame &&
        frame.header.publish_ns < key_frame_.header.publish_ns) {
        return true;
    }
    change_over(frame);
    return true;
}

void ZAV_SHM_Frame_Dual_Subscriber::change_over(zav_shm::Received_Frame& frame) {
    std::swap(frame, key_frame_);
    has_key_frame_ = false;
    of(current_).close();
    current_ = wanted_;
    ++changes_;
}

Receive_Status ZAV_SHM_Frame_Dual_Subscriber::receive(zav_shm::Received_Frame& frame,
                                                      std::chrono::milliseconds timeout) {
    const auto end = zav_shm::moment_after(timeout);
    Receive_Status status = Receive_Status::timeout;
    while (is_changing() && status == Receive_Status::timeout) {
        if (take_during_change(frame)) {
            status = Receive_Status::frame;
            break;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        status =
            of(current_).receive(frame, std::clamp<std::chrono::milliseconds>(left, 0ms, look));
        // One camera's streams are published right after each other: the wanted key frame may have
        // come just before this frame, and stands for it.
        if (status == Receive_Status::frame && find_wanted_key_frame() &&
            key_frame_.header.publish_ns <= frame.header.publish_ns) {
            change_over(frame);
        }
        if (left <= 0ms) {
            break;
        }
    }
    if (!is_changing() && status == Receive_Status::timeout) {
        status = of(current_).receive(frame, timeout);
    }
    if (status == Receive_Status::frame) {
        last_published_ns_ = frame.header.publish_ns;
    }
    return status;
}

zav_shm::Frame_State ZAV_SHM_Frame_Dual_Subscriber::state() const { return of(current_).state(); }

zav_shm::Subscriber_Counters ZAV_SHM_Frame_Dual_Subscriber::counters(Stream stream) const {
    return of(stream).counters();
}
