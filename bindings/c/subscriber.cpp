// SPDX-License-Identifier: Apache-2.0
//
// The functions of a subscriber: each looks the handle up, checks what it was given, and calls the
// safe layer.
#include "frame/frame_subscriber.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <limits>
#include <mutex>
#include <string>
#include <utility>

#include "bindings/c/handles.h"
#include "bindings/c/structs.h"
#include "bindings/c/values.h"
#include "bindings/c/view.h"

using namespace zav_shm::c_interface;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using zav_shm::Receive_Status;

namespace {

struct Subscriber {
    static constexpr Kind kind = Kind::subscriber;

    explicit Subscriber(ZAV_SHM_Frame_Subscriber::Options options)
        : subscriber(std::move(options)) {}

    ZAV_SHM_Frame_Subscriber subscriber;
    std::atomic<bool> interrupted{false};

    std::mutex one_at_a_time;  // held by what receives; guards the next two
    // The copy that the caller's buffer is filled from: a frame longer than that is kept, and not
    // lost.
    zav_shm::Received_Frame frame;
    bool is_kept = false;
};

constexpr double half = 0.5;
constexpr double nearly_all = 0.99;

// A wait without limit is made of these.
constexpr milliseconds stretch = std::chrono::hours(1);

std::size_t bytes_of(std::uint64_t bytes) {
    return static_cast<std::size_t>(
        std::min<std::uint64_t>(bytes, std::numeric_limits<std::size_t>::max()));
}

zav_shm_status read_options(const zav_shm_subscriber_options* from,
                            ZAV_SHM_Frame_Subscriber::Options& into) {
    zav_shm_subscriber_options said = {};
    auto status = read_struct(from, "zav_shm_subscriber_options", said);
    if (status == ZAV_SHM_OK && said.producer == nullptr) {
        status = fail_for_null("zav_shm_subscriber_options.producer");
    }
    if (status == ZAV_SHM_OK) {
        status = check_numbers(said.channel, said.stream);
    }
    if (status == ZAV_SHM_OK) {
        status = read_start(said.start, said.back_ns, into.from);
    }
    if (status == ZAV_SHM_OK) {
        status = read_overflow(said.overflow, into.overflow);
    }
    if (status != ZAV_SHM_OK) {
        return status;
    }
    into.name = text_of(said.name, "");
    into.producer = said.producer;
    into.channel = said.channel;
    into.stream = said.stream;
    into.start_at_key_frame = said.start_at_key_frame != 0;
    into.key_frame_after_loss = said.key_frame_after_loss != 0;
    into.asks_for_key_frame = said.asks_for_key_frame != 0;
    into.center_wait = center_wait_of(said.center_wait_ms);
    into.folder = text_of(said.folder, "shm");
    into.untrusting = said.untrusting != 0;
    into.history_bytes = bytes_of(said.history_bytes);
    return ZAV_SHM_OK;
}

/// What the functions that come one at a time have in common.
template <class Use>
zav_shm_status use_alone(zav_shm_subscriber handle, const Use& use) {
    return guarded([&]() -> zav_shm_status {
        const auto found = find<Subscriber>(handle);
        if (!found.object) {
            return found.status;
        }
        const std::unique_lock lock(found.object->one_at_a_time, std::try_to_lock);
        if (!lock.owns_lock()) {
            return fail(ZAV_SHM_BUSY, "another thread is in a call of this subscriber");
        }
        return use(*found.object);
    });
}

template <class Use>
zav_shm_status use_beside_others(zav_shm_subscriber handle, const Use& use) {
    return guarded([&]() -> zav_shm_status {
        const auto found = find<Subscriber>(handle);
        return found.object ? use(*found.object) : found.status;
    });
}

/// Receives by `next`, which waits for so long; says why there is none.
template <class Next>
zav_shm_status wait_for_frame(Subscriber& from, std::int32_t timeout_ms, const Next& next) {
    const auto begin = steady_clock::now();
    for (;;) {
        milliseconds left = stretch;
        if (timeout_ms >= 0) {
            left = std::max(milliseconds(0),
                            std::chrono::ceil<milliseconds>(begin + milliseconds(timeout_ms) -
                                                            steady_clock::now()));
        }
        const Receive_Status status = next(left);
        if (status == Receive_Status::frame) {
            return ZAV_SHM_OK;
        }
        if (status == Receive_Status::closed) {
            return fail(ZAV_SHM_CLOSED, "the subscriber is closed");
        }
        // Only a call that would wait takes an interruption.
        if (timeout_ms != 0 && from.interrupted.exchange(false)) {
            return ZAV_SHM_INTERRUPTED;
        }
        if (left == milliseconds(0)) {
            return ZAV_SHM_TIMEOUT;
        }
    }
}

zav_shm_status check_frame(const zav_shm_frame* frame) {
    return frame == nullptr ? ZAV_SHM_OK : check_size(frame, "zav_shm_frame");
}

void tell(const zav_shm_frame& said, zav_shm_frame* frame) {
    if (frame != nullptr) {
        write_struct(said, frame);
    }
}

}  // namespace

zav_shm_status zav_shm_subscriber_open(const zav_shm_subscriber_options* options,
                                       zav_shm_subscriber* subscriber) {
    return guarded([&]() -> zav_shm_status {
        if (subscriber == nullptr) {
            return fail_for_null("subscriber");
        }
        ZAV_SHM_Frame_Subscriber::Options wanted;
        if (const auto status = read_options(options, wanted); status != ZAV_SHM_OK) {
            return status;
        }
        const auto made = std::make_shared<Subscriber>(std::move(wanted));
        const auto opened = made->subscriber.open();
        *subscriber = add_handle(Kind::subscriber, made);
        return status_of(opened);
    });
}

zav_shm_status zav_shm_subscriber_receive(zav_shm_subscriber subscriber, void* buffer,
                                          size_t buffer_bytes, int32_t timeout_ms,
                                          zav_shm_frame* frame) {
    return use_alone(subscriber, [&](Subscriber& from) -> zav_shm_status {
        if (buffer == nullptr && buffer_bytes != 0) {
            return fail_for_null("buffer");
        }
        auto status = check_frame(frame);
        if (status == ZAV_SHM_OK && !from.is_kept) {
            status = wait_for_frame(from, timeout_ms, [&from](milliseconds left) {
                return from.subscriber.receive(from.frame, left);
            });
        }
        if (status != ZAV_SHM_OK) {
            return status;
        }
        const auto payload = from.frame.payload();
        from.is_kept = payload.size() > buffer_bytes;
        tell(frame_of(from.frame, from.is_kept ? nullptr : buffer, payload.size()), frame);
        if (from.is_kept) {
            return fail(ZAV_SHM_SMALL_BUFFER, "a frame of " + std::to_string(payload.size()) +
                                                  " bytes, the buffer has " +
                                                  std::to_string(buffer_bytes));
        }
        if (!payload.empty()) {
            std::memcpy(buffer, payload.data(), payload.size());
        }
        return ZAV_SHM_OK;
    });
}

zav_shm_status zav_shm_subscriber_receive_view(zav_shm_subscriber subscriber, int32_t timeout_ms,
                                               zav_shm_view* view, zav_shm_frame* frame) {
    return use_alone(subscriber, [&](Subscriber& from) -> zav_shm_status {
        if (view == nullptr) {
            return fail_for_null("view");
        }
        if (const auto status = check_frame(frame); status != ZAV_SHM_OK) {
            return status;
        }
        auto shown = *view != 0 ? find<View>(*view) : Found<View>{std::make_shared<View>()};
        if (!shown.object) {
            return shown.status;
        }
        const std::unique_lock lock(shown.object->filling, std::try_to_lock);
        if (!lock.owns_lock()) {
            return fail(ZAV_SHM_BUSY, "another thread uses this view");
        }
        const auto status = wait_for_frame(from, timeout_ms, [&](milliseconds left) {
            return from.subscriber.receive_view(shown.object->view, left);
        });
        if (status == ZAV_SHM_OK) {
            const auto payload = shown.object->view.payload();
            tell(frame_of(shown.object->view, payload.data(), payload.size()), frame);
            if (*view == 0) {
                *view = add_handle(Kind::view, shown.object);
            }
        }
        return status;
    });
}

zav_shm_status zav_shm_subscriber_interrupt(zav_shm_subscriber subscriber) {
    return use_beside_others(subscriber, [](Subscriber& one) {
        one.interrupted = true;
        one.subscriber.interrupt();
        return ZAV_SHM_OK;
    });
}

zav_shm_status zav_shm_subscriber_seek(zav_shm_subscriber subscriber, uint32_t start,
                                       int64_t back_ns) {
    return use_alone(subscriber, [&](Subscriber& one) {
        zav_shm::Start wanted;
        const auto status = read_start(start, back_ns, wanted);
        if (status == ZAV_SHM_OK) {
            one.is_kept = false;
            one.subscriber.seek(wanted);
        }
        return status;
    });
}

zav_shm_status zav_shm_subscriber_descriptor(zav_shm_subscriber subscriber, int* descriptor) {
    return use_alone(subscriber, [&](Subscriber& one) {
        if (descriptor == nullptr) {
            return fail_for_null("descriptor");
        }
        const int had = one.subscriber.descriptor();
        if (had < 0) {
            return fail(ZAV_SHM_FAILED, "no descriptor, or no thread for it, can be had");
        }
        *descriptor = had;
        return ZAV_SHM_OK;
    });
}

zav_shm_status zav_shm_subscriber_pair(zav_shm_subscriber subscriber, const char* producer,
                                       uint32_t limit_ms) {
    return use_beside_others(subscriber, [&](Subscriber& one) {
        if (producer == nullptr) {
            return fail_for_null("producer");
        }
        const auto opened = one.subscriber.pair(producer, milliseconds(limit_ms));
        if (opened || opened.reason.empty()) {
            return ZAV_SHM_OK;
        }
        return fail(opened.refused ? ZAV_SHM_REFUSED : ZAV_SHM_NOT_SERVED, opened.reason);
    });
}

zav_shm_status zav_shm_subscriber_request_key_frame(zav_shm_subscriber subscriber) {
    return use_beside_others(subscriber, [](Subscriber& one) {
        return one.subscriber.request_key_frame()
                   ? ZAV_SHM_OK
                   : fail(ZAV_SHM_NOT_SERVED, "there is no publisher to ask, or no right to");
    });
}

zav_shm_status zav_shm_subscriber_counters_of(zav_shm_subscriber subscriber,
                                              zav_shm_subscriber_counters* counters) {
    return use_beside_others(subscriber, [&](const Subscriber& of) {
        const auto status = check_size(counters, "zav_shm_subscriber_counters");
        if (status != ZAV_SHM_OK) {
            return status;
        }
        const zav_shm::Subscriber_Counters now = of.subscriber.counters();
        zav_shm_subscriber_counters told = {};
        told.frames = now.frames;
        told.bytes = now.bytes;
        told.key_frames = now.key_frames;
        told.overtaken = now.overtaken;
        told.left_out = now.left_out;
        told.no_memory = now.no_memory;
        told.dropped = now.dropped;
        told.skipped = now.skipped;
        told.torn = now.torn;
        told.invalid = now.invalid;
        told.foreign = now.foreign;
        told.repeated = now.repeated;
        told.recoveries = now.recoveries;
        told.timeouts_no_frame = now.timeouts_no_frame;
        told.timeouts_no_relay = now.timeouts_no_relay;
        told.latency_p50_ns = now.latency.percentile_ns(half);
        told.latency_p99_ns = now.latency.percentile_ns(nearly_all);
        write_struct(told, counters);
        return ZAV_SHM_OK;
    });
}

zav_shm_status zav_shm_subscriber_state(zav_shm_subscriber subscriber, zav_shm_state* state,
                                        char* reason, size_t reason_bytes) {
    return use_beside_others(subscriber, [&](const Subscriber& of) {
        return tell_state(of.subscriber.state(), of.subscriber.reason(), state, reason,
                          reason_bytes);
    });
}

zav_shm_status zav_shm_subscriber_close(zav_shm_subscriber subscriber) {
    return guarded([&] {
        const auto found = take<Subscriber>(subscriber);
        if (found.object) {
            found.object->subscriber.close();
        }
        return found.status;
    });
}
