// SPDX-License-Identifier: Apache-2.0
//
// The functions of a publisher: each looks the handle up, checks what it was given, and calls the
// safe layer.
#include <algorithm>
#include <chrono>
#include <limits>
#include <mutex>
#include <span>
#include <string>
#include <utility>

#include "bindings/c/handles.h"
#include "bindings/c/structs.h"
#include "bindings/c/values.h"
#include "frame/frame_publisher.h"

using namespace zav_shm::c_interface;
using zav_shm::Publish_Outcome;

namespace {

struct Publisher {
    static constexpr Kind kind = Kind::publisher;

    explicit Publisher(ZAV_SHM_Frame_Publisher::Options options) : publisher(std::move(options)) {}

    ZAV_SHM_Frame_Publisher publisher;
    std::mutex one_at_a_time;  // held by what publishes, and by close()
    bool closed = false;       // guarded by the mutex
};

constexpr std::uint32_t pace_limit_default_ms = 200;

zav_shm_status read_options(const zav_shm_publisher_options* from,
                            ZAV_SHM_Frame_Publisher::Options& into) {
    zav_shm_publisher_options said = {};
    auto status = read_struct(from, "zav_shm_publisher_options", said);
    if (status == ZAV_SHM_OK && said.name == nullptr) {
        status = fail_for_null("zav_shm_publisher_options.name");
    }
    if (status == ZAV_SHM_OK) {
        status = check_numbers(said.channel, said.stream);
    }
    if (status == ZAV_SHM_OK && said.format != nullptr) {
        status = read_format(said.format, into.format);
    }
    if (status != ZAV_SHM_OK) {
        return status;
    }
    into.name = said.name;
    into.channel = said.channel;
    into.stream = said.stream;
    into.center_wait = center_wait_of(said.center_wait_ms);
    into.folder = text_of(said.folder, "shm");
    into.history_bytes = static_cast<std::size_t>(
        std::min<std::uint64_t>(said.history_bytes, std::numeric_limits<std::size_t>::max()));
    into.frame_bytes_max = static_cast<std::size_t>(
        std::min<std::uint64_t>(said.frame_bytes_max, std::numeric_limits<std::size_t>::max()));
    into.paced = said.paced != 0;
    into.pace_limit = std::chrono::milliseconds(said.pace_limit_ms != 0 ? said.pace_limit_ms
                                                                        : pace_limit_default_ms);
    return ZAV_SHM_OK;
}

/// What the functions that come one at a time have in common.
template <class Use>
zav_shm_status use_alone(zav_shm_publisher handle, const Use& use) {
    return guarded([&]() -> zav_shm_status {
        const auto found = find<Publisher>(handle);
        if (!found.object) {
            return found.status;
        }
        const std::unique_lock lock(found.object->one_at_a_time, std::try_to_lock);
        if (!lock.owns_lock()) {
            return fail(ZAV_SHM_BUSY, "another thread is in a call of this publisher");
        }
        if (found.object->closed) {
            return fail(ZAV_SHM_CLOSED, "the publisher is closed");
        }
        return use(found.object->publisher);
    });
}

template <class Use>
zav_shm_status use_beside_others(zav_shm_publisher handle, const Use& use) {
    return guarded([&]() -> zav_shm_status {
        const auto found = find<Publisher>(handle);
        return found.object ? use(found.object->publisher) : found.status;
    });
}

zav_shm_status status_of(const ZAV_SHM_Frame_Publisher::Result& result) {
    switch (result.outcome) {
        case Publish_Outcome::published:
            return ZAV_SHM_OK;
        case Publish_Outcome::too_large:
            return fail(ZAV_SHM_TOO_LARGE, result.reason);
        case Publish_Outcome::refused:
            return fail(ZAV_SHM_REFUSED, result.reason);
        default:
            return fail(ZAV_SHM_NO_RING, result.reason);
    }
}

}  // namespace

zav_shm_status zav_shm_publisher_open(const zav_shm_publisher_options* options,
                                      zav_shm_publisher* publisher) {
    return guarded([&]() -> zav_shm_status {
        if (publisher == nullptr) {
            return fail_for_null("publisher");
        }
        ZAV_SHM_Frame_Publisher::Options wanted;
        if (const auto status = read_options(options, wanted); status != ZAV_SHM_OK) {
            return status;
        }
        const auto made = std::make_shared<Publisher>(std::move(wanted));
        const auto opened = made->publisher.open();
        *publisher = add_handle(Kind::publisher, made);
        return status_of(opened);
    });
}

zav_shm_status zav_shm_publisher_publish(zav_shm_publisher publisher, const void* payload,
                                         size_t payload_bytes, const zav_shm_frame_info* info) {
    return use_alone(publisher, [&](ZAV_SHM_Frame_Publisher& to) -> zav_shm_status {
        zav_shm::Frame_Info said;
        if (payload == nullptr && payload_bytes != 0) {
            return fail_for_null("payload");
        }
        if (const auto status = read_info(info, said); status != ZAV_SHM_OK) {
            return status;
        }
        return status_of(to.publish({static_cast<const std::byte*>(payload), payload_bytes}, said));
    });
}

zav_shm_status zav_shm_publisher_loan(zav_shm_publisher publisher, size_t payload_bytes,
                                      void** room, size_t* room_bytes) {
    return use_alone(publisher, [&](ZAV_SHM_Frame_Publisher& to) -> zav_shm_status {
        if (room == nullptr || room_bytes == nullptr) {
            return fail_for_null(room == nullptr ? "room" : "room_bytes");
        }
        const auto lent = to.loan(payload_bytes);
        if (lent.data() == nullptr) {
            const std::size_t limit = to.page_bytes();
            if (limit != 0 && payload_bytes > limit) {
                return fail(ZAV_SHM_TOO_LARGE, "a loan of " + std::to_string(payload_bytes) +
                                                   " bytes, the greatest frame has " +
                                                   std::to_string(limit));
            }
            const std::string reason = to.reason();
            return fail(ZAV_SHM_NO_RING, reason.empty() ? "there is no history to write" : reason);
        }
        *room = lent.data();
        *room_bytes = lent.size();
        return ZAV_SHM_OK;
    });
}

zav_shm_status zav_shm_publisher_commit(zav_shm_publisher publisher, size_t payload_bytes,
                                        const zav_shm_frame_info* info) {
    return use_alone(publisher, [&](ZAV_SHM_Frame_Publisher& to) -> zav_shm_status {
        zav_shm::Frame_Info said;
        if (const auto status = read_info(info, said); status != ZAV_SHM_OK) {
            return status;
        }
        return status_of(to.commit(payload_bytes, said));
    });
}

zav_shm_status zav_shm_publisher_leave_out(zav_shm_publisher publisher, uint64_t frames) {
    return use_alone(publisher, [&](ZAV_SHM_Frame_Publisher& to) {
        to.leave_out(frames);
        return ZAV_SHM_OK;
    });
}

zav_shm_status zav_shm_publisher_set_format(zav_shm_publisher publisher,
                                            const zav_shm_format* format) {
    return use_alone(publisher, [&](ZAV_SHM_Frame_Publisher& to) {
        zav_shm::Frame_Format said;
        const auto status = read_format(format, said);
        if (status == ZAV_SHM_OK) {
            to.set_format(said);
        }
        return status;
    });
}

zav_shm_status zav_shm_publisher_key_frame_requested(zav_shm_publisher publisher, int* requested) {
    return use_alone(publisher, [&](ZAV_SHM_Frame_Publisher& to) {
        if (requested == nullptr) {
            return fail_for_null("requested");
        }
        *requested = to.key_frame_requested() ? 1 : 0;
        return ZAV_SHM_OK;
    });
}

zav_shm_status zav_shm_publisher_counters_of(zav_shm_publisher publisher,
                                             zav_shm_publisher_counters* counters) {
    return use_beside_others(publisher, [&](const ZAV_SHM_Frame_Publisher& of) {
        const auto status = check_size(counters, "zav_shm_publisher_counters");
        if (status != ZAV_SHM_OK) {
            return status;
        }
        const zav_shm::Publisher_Counters now = of.counters();
        zav_shm_publisher_counters told = {};
        told.frames = now.frames;
        told.published = now.published;
        told.bytes = now.bytes;
        told.too_large = now.too_large;
        told.refused = now.refused;
        told.recoveries = now.recoveries;
        told.waits = now.waits;
        told.given_up = now.given_up;
        told.slot_frames = now.slot_frames;
        told.slot_passed_over = now.slot_passed_over;
        told.slot_slow_reads = now.slot_slow_reads;
        write_struct(told, counters);
        return ZAV_SHM_OK;
    });
}

zav_shm_status zav_shm_publisher_state(zav_shm_publisher publisher, zav_shm_state* state,
                                       char* reason, size_t reason_bytes) {
    return use_beside_others(publisher, [&](const ZAV_SHM_Frame_Publisher& of) {
        return tell_state(of.state(), of.reason(), state, reason, reason_bytes);
    });
}

zav_shm_status zav_shm_publisher_close(zav_shm_publisher publisher) {
    return guarded([&] {
        const auto found = take<Publisher>(publisher);
        if (found.object) {
            const std::lock_guard lock(found.object->one_at_a_time);
            found.object->closed = true;
            found.object->publisher.close();
        }
        return found.status;
    });
}
