// SPDX-License-Identifier: Apache-2.0
#include "frame/frame_dual_subscriber.h"

#include <algorithm>
#include <utility>

#include "ipc/deadline.h"

using namespace std::chrono_literals;
using zav_shm::Receive_Status;

namespace {

// During a change both queues are looked at in turn; the wanted key frame waits for one look at
// the other at most.
constexpr auto look = 5ms;

ZAV_SHM_Frame_Subscriber::Options with_stream(ZAV_SHM_Frame_Subscriber::Options options,
                                              int stream) {
    options.stream = stream;
    return options;
}

// What comes before a key frame is of no use to whoever changes over.
ZAV_SHM_Frame_Subscriber::Options from_key_frame(ZAV_SHM_Frame_Subscriber::Options options) {
    options.start_at_key_frame = true;
    return options;
}

}  // namespace

ZAV_SHM_Frame_Dual_Subscriber::ZAV_SHM_Frame_Dual_Subscriber(const Options& main_options,
                                                             int sub_stream) {
    const Options options = from_key_frame(main_options);
    subscribers_[main] = std::make_unique<ZAV_SHM_Frame_Subscriber>(options);
    subscribers_[sub] =
        std::make_unique<ZAV_SHM_Frame_Subscriber>(with_stream(options, sub_stream));
}

ZAV_SHM_Frame_Dual_Subscriber::~ZAV_SHM_Frame_Dual_Subscriber() { close(); }

ZAV_SHM_Frame_Dual_Subscriber::Opened ZAV_SHM_Frame_Dual_Subscriber::open() {
    open_ = true;
    current_ = wanted_;
    return of(current_).open();
}

void ZAV_SHM_Frame_Dual_Subscriber::close() {
    open_ = has_key_frame_ = false;
    for (const auto& subscriber : subscribers_) {
        subscriber->close();
    }
}

ZAV_SHM_Frame_Dual_Subscriber::Opened ZAV_SHM_Frame_Dual_Subscriber::select(Stream stream) {
    if (is_changing() && stream == current_) {
        of(wanted_).close();
        has_key_frame_ = false;
    }
    wanted_ = stream;
    if (!open_) {
        return {};
    }
    return of(wanted_).open();
}

// Once the wanted key frame is here, frames of the present stream that were published before it
// still come out; then the change comes about.
bool ZAV_SHM_Frame_Dual_Subscriber::take_during_change(zav_shm::Received_Frame& frame) {
    has_key_frame_ =
        has_key_frame_ || of(wanted_).receive(key_frame_, 0ms) == Receive_Status::frame;
    if (!has_key_frame_) {
        return false;
    }
    if (of(current_).receive(frame, 0ms) == Receive_Status::frame &&
        frame.header.publish_ns < key_frame_.header.publish_ns) {
        return true;
    }
    std::swap(frame, key_frame_);
    has_key_frame_ = false;
    of(current_).close();
    current_ = wanted_;
    ++changes_;
    return true;
}

Receive_Status ZAV_SHM_Frame_Dual_Subscriber::receive(zav_shm::Received_Frame& frame,
                                                      std::chrono::milliseconds timeout) {
    const auto end = zav_shm::moment_after(timeout);
    while (is_changing()) {
        if (take_during_change(frame)) {
            return Receive_Status::frame;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        const Receive_Status status =
            of(current_).receive(frame, std::clamp<std::chrono::milliseconds>(left, 0ms, look));
        if (status != Receive_Status::timeout || left <= 0ms) {
            return status;
        }
    }
    return of(current_).receive(frame, timeout);
}

zav_shm::Frame_State ZAV_SHM_Frame_Dual_Subscriber::state() const { return of(current_).state(); }

zav_shm::Subscriber_Counters ZAV_SHM_Frame_Dual_Subscriber::counters(Stream stream) const {
    return of(stream).counters();
}
