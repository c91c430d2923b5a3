// SPDX-License-Identifier: Apache-2.0
#include "frame/frame_publisher.h"

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <limits>
#include <optional>
#include <utility>

#include "control/control_protocol.h"
#include "frame/frame_record.h"
#include "frame/link/standing.h"
#include "frame/reader_pace.h"
#include "frame/slot/slot_feeder.h"
#include "ipc/annotated_mutex.h"
#include "ipc/forks.h"
#include "ipc/monotonic_clock.h"
#include "ipc/random_epoch.h"
#include "ipc/ring_place.h"
#include "ipc/shared_memory_folder.h"
#include "ipc/test_point.h"
#include "ring/ring_writer.h"
#include "ring/writer_requests.h"

using namespace std::chrono_literals;
using zav_shm::Frame_Info;
using zav_shm::Frame_State;
using zav_shm::is_file_name;
using zav_shm::monotonic_ns;
using zav_shm::of_parent;
using zav_shm::Publish_Outcome;
using zav_shm::Publisher_Counters;

namespace {

constexpr std::size_t header_bytes = sizeof(ZAV_SHM_Frame_Header);

// Of a stream that no center has said anything of.
constexpr std::size_t default_frame_bytes = std::size_t{1} << 20;

// How often publish() tries to make the history that could not be had, and looks whether the one
// that it writes still has its name.
constexpr std::int64_t ring_look_ns = 500'000'000;

// For the own user, unless the center's host has made it for a group.
constexpr mode_t own_folder = 0700;

std::size_t twice(std::size_t bytes) {
    return bytes > std::numeric_limits<std::size_t>::max() / 2 ? bytes : 2 * bytes;
}

// In builds for tests a process can be ended in the middle.
void copy_payload(std::byte* to, std::span<const std::byte> payload) {
    if (payload.empty()) {
        return;
    }
    const std::size_t half = payload.size() / 2;
    std::memcpy(to, payload.data(), half);
    zav_shm::test_point("copy", "write");
    std::memcpy(to + half, payload.data() + half, payload.size() - half);
}

// What keeps a ring from being made whatever is there already.
std::optional<zav_shm::Ring_Problem> obstacle_to(const std::string& name, const std::string& rings,
                                                 std::size_t frame_max, std::size_t history) {
    using zav_shm::Ring_Problem;
    constexpr std::size_t bytes_max = std::numeric_limits<std::uint32_t>::max();
    // Nothing is to be written beside the rings, whoever has looked at the name.
    if (!is_file_name(name)) {
        return Ring_Problem{Ring_Problem::Kind::system,
                            "the name \"" + name +
                                "\" cannot name a file: it is empty, begins with a dot or has a "
                                "slash",
                            0};
    }
    if (frame_max > bytes_max - header_bytes) {  // their sum may not fit
        return Ring_Problem{Ring_Problem::Kind::system,
                            "frames of " + std::to_string(frame_max) + " bytes; the limit is " +
                                std::to_string(bytes_max - header_bytes),
                            0};
    }
    if (history > bytes_max) {
        return Ring_Problem{Ring_Problem::Kind::system,
                            "a history of " + std::to_string(history) + " bytes for frames of " +
                                std::to_string(frame_max) + " is more than " +
                                std::to_string(bytes_max),
                            0};
    }
    if (std::string refused = zav_shm::producing_refusal(rings, name); !refused.empty()) {
        return Ring_Problem{Ring_Problem::Kind::forbidden, std::move(refused), 0};
    }
    return std::nullopt;
}

}  // namespace

class ZAV_SHM_Frame_Publisher::Body {
public:
    explicit Body(Options options)
        : options_(std::move(options)),
          title_(options_.name + "/" + std::to_string(options_.channel) + "/" +
                 std::to_string(options_.stream)) {}

    Opened open();
    void close(std::chrono::milliseconds limit);
    std::span<std::byte> loan(std::size_t bytes);
    Result commit(std::size_t payload_bytes, const Frame_Info& info);
    Result publish(std::span<const std::byte> payload, const Frame_Info& info);
    void leave_out(std::uint64_t frames) {
        sequence_ += frames;
        frames_.store(sequence_, std::memory_order_relaxed);
    }
    void set_format(const zav_shm::Frame_Format& format) { options_.format = format; }
    bool key_frame_requested() { return requests_ && requests_->take(); }

    /// True in a child that was forked off the process that opened this. It has neither the threads
    /// nor the right to say anything in its parent's name.
    bool is_parents() const { return open_ && forks_ != zav_shm::forks_so_far(); }

    Frame_State state() const;
    std::string reason() const;
    Publisher_Counters counters() const;
    std::size_t page_bytes() const { return page_bytes_; }
    std::uint64_t epoch() const { return epoch_; }

private:
    using Standing = zav_shm::Standing;

    bool make_ring();
    void note_denial();
    void feed_slot();
    bool begin_frame();
    void look_after_others();
    bool is_named() const;
    std::string rings() const { return zav_shm::rings_folder(standing_->folder()); }
    std::string ring_path() const;
    std::optional<zav_shm::Ring_Access> ring_access() const;
    std::span<std::byte> room_for(std::size_t payload_bytes);
    Result write(std::size_t payload_bytes, const Frame_Info& info);
    void add_those_of_others(Publisher_Counters& counters) const;
    void add_those_of_readers(Publisher_Counters& counters) const;
    Result not_written(Publish_Outcome outcome, std::size_t payload_bytes);
    ZAV_SHM_Frame_Header header_of(std::size_t payload_bytes, const Frame_Info& info) const;

    Options options_;
    const std::string title_;
    const std::uint64_t epoch_ = zav_shm::random_epoch();

    // Of the publishing thread.
    std::unique_ptr<zav_shm::Ring_Writer> writer_;
    std::optional<zav_shm::Writer_Requests> requests_;
    std::shared_ptr<zav_shm::Reader_Pace> pace_;  // the pointer is guarded by mutex_
    std::uint64_t sequence_ = 0;                  // of the frame offered last
    std::span<std::byte> room_;  // header and payload of the frame that is being written
    std::int64_t begun_ns_ = 0;
    bool on_loan_ = false;
    std::int64_t next_look_ns_ = 0;

    std::atomic<bool> open_{false};
    std::atomic<bool> has_slot_to_come_{false};  // it was granted, and could not be had
    std::atomic<bool> is_denied_{false};         // by the groups of the configuration
    std::atomic<unsigned> forks_{0};             // when it was opened
    std::atomic<std::size_t> page_bytes_{0};
    std::atomic<std::uint64_t> frames_{0};
    std::atomic<std::uint64_t> published_{0};
    std::atomic<std::uint64_t> bytes_{0};
    std::atomic<std::uint64_t> too_large_{0};
    std::atomic<std::uint64_t> refused_{0};

    zav_shm::Mutex feeding_;  // held while a slot is put to use

    // Held for a few instructions. The publishing thread alone changes the next two, and reads them
    // without the mutex.
    mutable zav_shm::Mutex mutex_;
    std::shared_ptr<Standing> standing_;
    std::shared_ptr<zav_shm::Slot_Feeder> feeder_;
    std::string trouble_;      // why there is no history
    Publisher_Counters kept_;  // what those counted that went with a close()
};

// ---- open and close ----

ZAV_SHM_Frame_Publisher::Opened ZAV_SHM_Frame_Publisher::Body::open() {
    if (is_parents()) {
        return {Frame_State::closed, of_parent, false};
    }
    if (open_) {
        return {state(), reason(), state() == Frame_State::refused};
    }
    auto standing =
        std::make_shared<Standing>(zav_shm::Channel_End{.type = zav_shm::control::type::distributor,
                                                        .name = options_.name,
                                                        .producer = {},
                                                        .channel = options_.channel,
                                                        .stream = options_.stream,
                                                        .folder = "/" + options_.folder,
                                                        .card = {}},
                                   [this] { feed_slot(); });
    {
        const zav_shm::Guard guard(mutex_);
        standing_ = standing;
    }
    forks_ = zav_shm::forks_so_far();
    open_ = true;
    const Opened opened = standing->open(options_.center_wait);
    zav_shm::Link_Keeper::begin(standing);
    next_look_ns_ = 0;
    const bool has_ring = begin_frame();
    if (is_denied_) {
        return {Frame_State::refused, reason(), true};
    }
    return opened.refused || has_ring ? opened : Opened{state(), reason(), false};
}

// The files lie in a folder that the center's host makes; without one, in the own user's.
bool ZAV_SHM_Frame_Publisher::Body::make_ring() {
    const auto grant = standing_->grant();
    const std::string segments = zav_shm::shared_memory_path(standing_->folder());
    const std::string rings = this->rings();
    mkdir(segments.c_str(), own_folder);
    mkdir(rings.c_str(), own_folder);
    const std::size_t page =
        grant.names.page_bytes != 0 ? grant.names.page_bytes : default_frame_bytes;
    const std::size_t frame_max = options_.frame_bytes_max != 0 ? options_.frame_bytes_max : page;
    const std::size_t configured =
        grant.names.history_bytes != 0 ? grant.names.history_bytes : twice(frame_max);
    const std::size_t history = options_.history_bytes != 0 ? options_.history_bytes : configured;
    const std::string path = ring_path();
    const auto access = ring_access();
    zav_shm::Ring_Problem problem;
    if (auto obstacle = obstacle_to(options_.name, rings, frame_max, history)) {
        problem = std::move(*obstacle);
    } else {
        writer_ = zav_shm::Ring_Writer::open(path,
                                             {static_cast<std::uint32_t>(history),
                                              static_cast<std::uint32_t>(frame_max + header_bytes)},
                                             problem, access);
    }
    is_denied_ = access && problem.kind == zav_shm::Ring_Problem::Kind::forbidden;
    std::shared_ptr<zav_shm::Slot_Feeder> former;  // whose thread ends when the mutex is free again
    {
        const zav_shm::Guard guard(mutex_);
        trouble_ = problem.kind == zav_shm::Ring_Problem::Kind::held
                       ? "process " + std::to_string(problem.holder) + " publishes " + title_
                       : problem.text;
        if (!writer_) {
            return false;
        }
        add_those_of_readers(kept_);
        former = std::exchange(
            feeder_, std::make_shared<zav_shm::Slot_Feeder>(writer_->memory(), options_.paced));
        pace_.reset();
    }
    page_bytes_ = frame_max;
    requests_.emplace(path, access);
    if (options_.paced) {
        const zav_shm::Guard guard(mutex_);
        pace_ = std::make_shared<zav_shm::Reader_Pace>(
            rings, options_.name, options_.channel, options_.stream, options_.pace_limit, feeder_);
    }
    feed_slot();
    return true;
}

// Called on any thread, when the center has granted the slot anew.
void ZAV_SHM_Frame_Publisher::Body::feed_slot() {
    // One thread at a time: else a slot that was granted before could be used last.
    const zav_shm::Guard feeding(feeding_);
    std::shared_ptr<zav_shm::Slot_Feeder> feeder;
    std::shared_ptr<Standing> standing;
    {
        const zav_shm::Guard guard(mutex_);
        feeder = feeder_;
        standing = standing_;
    }
    if (feeder && standing) {
        const auto grant = standing->grant();
        if (grant.number != 0) {
            has_slot_to_come_ = !feeder->use(grant.names.segment, grant.names.sem_src,
                                             grant.names.sem_dst, grant.names.sem_exist);
        }
    }
}

// Readers hear of the end last: a consumer that finds a closed history looks for its successor.
void ZAV_SHM_Frame_Publisher::Body::close(std::chrono::milliseconds limit) {
    if (is_parents() || !open_.exchange(false)) {
        return;
    }
    zav_shm::Link_Keeper::end(standing_);
    standing_->close(limit);
    if (feeder_) {
        feeder_->stop();
    }
    {
        const zav_shm::Guard guard(mutex_);
        add_those_of_others(kept_);
        standing_.reset();
        feeder_.reset();
        pace_.reset();
    }
    requests_.reset();
    writer_.reset();
    on_loan_ = false;
}

// ---- frames ----

// True when there is a history to write.
bool ZAV_SHM_Frame_Publisher::Body::begin_frame() {
    if (is_parents()) {
        return false;
    }
    if (!open_ || standing_->state() == Frame_State::refused) {
        writer_.reset();
        note_denial();
        return false;
    }
    const std::int64_t now = monotonic_ns();
    if (now < next_look_ns_) {
        return writer_ != nullptr;
    }
    next_look_ns_ = now + ring_look_ns;
    if (writer_ && is_named()) {
        look_after_others();
        return true;
    }
    writer_.reset();  // says that nothing comes any more to those who read it still
    return make_ring();
}

// A center that refuses does not say that it is for a group.
void ZAV_SHM_Frame_Publisher::Body::note_denial() {
    std::string refused = open_ ? zav_shm::producing_refusal(rings(), options_.name) : "";
    const bool was_denied = is_denied_.exchange(!refused.empty());
    if (was_denied || is_denied_) {
        const zav_shm::Guard guard(mutex_);
        trouble_ = std::move(refused);
    }
}

// What stands beside the history may have failed, or been removed, by itself.
void ZAV_SHM_Frame_Publisher::Body::look_after_others() {
    if (!requests_->is_named()) {
        requests_.emplace(ring_path(), ring_access());
    }
    if (has_slot_to_come_) {
        feed_slot();
    }
}

// False when somebody has removed the file, or put another one in its place: whoever looks for it
// does not find it. Who holds a center's grant leaves a folder that is gone to the center's host,
// which knows its rights.
bool ZAV_SHM_Frame_Publisher::Body::is_named() const {
    struct stat status {};
    const std::string path = ring_path();
    if (stat(path.c_str(), &status) == 0) {
        return status.st_ino == writer_->memory()->inode();
    }
    if (errno != ENOENT) {
        return true;  // nobody can tell
    }
    return stat(zav_shm::ring_folder(path).c_str(), &status) != 0 && standing_->grant().number != 0;
}

std::string ZAV_SHM_Frame_Publisher::Body::ring_path() const {
    return zav_shm::ring_path(rings(), options_.name, options_.channel, options_.stream);
}

// Nothing where the folder of all says who may read.
std::optional<zav_shm::Ring_Access> ZAV_SHM_Frame_Publisher::Body::ring_access() const {
    return zav_shm::ring_access(rings(), options_.name, options_.stream);
}

std::span<std::byte> ZAV_SHM_Frame_Publisher::Body::room_for(std::size_t payload_bytes) {
    if (pace_) {
        pace_->wait_for_readers(*writer_, header_bytes + payload_bytes);
    }
    begun_ns_ = monotonic_ns();
    room_ = writer_->reserve(header_bytes + payload_bytes);
    return room_.empty() ? room_ : room_.subspan(header_bytes);
}

ZAV_SHM_Frame_Publisher::Result ZAV_SHM_Frame_Publisher::Body::publish(
    std::span<const std::byte> payload, const Frame_Info& info) {
    sequence_ += on_loan_ ? 0 : 1;  // a loan that was given back has its number already
    on_loan_ = false;
    if (!begin_frame()) {
        return not_written(Publish_Outcome::no_ring, payload.size());
    }
    if (payload.size() > page_bytes_) {
        return not_written(Publish_Outcome::too_large, payload.size());
    }
    const std::span<std::byte> room = room_for(payload.size());
    if (room_.empty()) {
        return not_written(Publish_Outcome::no_ring, payload.size());
    }
    copy_payload(room.data(), payload);
    return write(payload.size(), info);
}

std::span<std::byte> ZAV_SHM_Frame_Publisher::Body::loan(std::size_t bytes) {
    sequence_ += on_loan_ ? 0 : 1;
    on_loan_ = true;
    room_ = {};
    if (!begin_frame() || bytes > page_bytes_) {
        return {};
    }
    return room_for(bytes != 0 ? bytes : page_bytes_.load());
}

ZAV_SHM_Frame_Publisher::Result ZAV_SHM_Frame_Publisher::Body::commit(std::size_t payload_bytes,
                                                                      const Frame_Info& info) {
    if (!std::exchange(on_loan_, false) || room_.empty()) {
        return {Publish_Outcome::no_ring, payload_bytes, page_bytes_, "nothing is on loan"};
    }
    if (payload_bytes > room_.size() - header_bytes) {
        return not_written(Publish_Outcome::too_large, payload_bytes);
    }
    return write(payload_bytes, info);
}

ZAV_SHM_Frame_Publisher::Result ZAV_SHM_Frame_Publisher::Body::write(std::size_t payload_bytes,
                                                                     const Frame_Info& info) {
    const ZAV_SHM_Frame_Header header = header_of(payload_bytes, info);
    std::memcpy(room_.data(), &header, header_bytes);
    writer_->commit(header_bytes + payload_bytes,
                    {.flags = zav_shm::frame_record::flags_of(info.flags),
                     .pts_ns = header.pts_ns,
                     .time_ns = begun_ns_});
    room_ = {};
    frames_.store(sequence_, std::memory_order_relaxed);
    published_.store(published_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    bytes_.store(bytes_.load(std::memory_order_relaxed) + payload_bytes, std::memory_order_relaxed);
    return {Publish_Outcome::published, payload_bytes, page_bytes_, {}};
}

ZAV_SHM_Frame_Header ZAV_SHM_Frame_Publisher::Body::header_of(std::size_t payload_bytes,
                                                              const Frame_Info& info) const {
    ZAV_SHM_Frame_Header header = {};
    header.magic = zav_shm::frame_magic;
    header.version = zav_shm::frame_version;
    header.flags = info.flags;
    header.sequence = sequence_;
    header.payload_length = static_cast<std::uint32_t>(payload_bytes);
    header.codec = options_.format.codec;
    header.epoch = epoch_;
    header.publish_ns = begun_ns_;
    header.pts_ns = info.pts.count();
    header.utc_ns = info.utc.count();
    header.width = options_.format.width;
    header.height = options_.format.height;
    header.rate_num = options_.format.rate_num;
    header.rate_den = options_.format.rate_den;
    header.channels = options_.format.channels;
    header.duration_us = static_cast<std::uint32_t>(info.duration.count());
    return header;
}

ZAV_SHM_Frame_Publisher::Result ZAV_SHM_Frame_Publisher::Body::not_written(
    Publish_Outcome outcome, std::size_t payload_bytes) {
    frames_ = sequence_;
    if (outcome == Publish_Outcome::too_large) {
        ++too_large_;
        return {outcome, payload_bytes, page_bytes_,
                "payload of " + std::to_string(payload_bytes) + " bytes, page size of " + title_ +
                    " is " + std::to_string(page_bytes_)};
    }
    ++refused_;
    if (!open_) {
        return {outcome, payload_bytes, page_bytes_, "closed"};
    }
    if (is_parents()) {
        return {outcome, payload_bytes, page_bytes_, of_parent};
    }
    const bool refused = is_denied_ || standing_->state() == Frame_State::refused;
    return {refused ? Publish_Outcome::refused : outcome, payload_bytes, page_bytes_, reason()};
}

// ---- asked from any thread ----

Frame_State ZAV_SHM_Frame_Publisher::Body::state() const {
    if (is_parents()) {
        return Frame_State::closed;
    }
    const zav_shm::Guard guard(mutex_);
    if (!open_ || !standing_) {
        return Frame_State::closed;
    }
    const Frame_State state = standing_->state();
    if (is_denied_) {
        return Frame_State::refused;
    }
    return state != Frame_State::refused && !trouble_.empty() ? Frame_State::no_ring : state;
}

std::string ZAV_SHM_Frame_Publisher::Body::reason() const {
    if (is_parents()) {
        return of_parent;
    }
    const zav_shm::Guard guard(mutex_);
    if (!trouble_.empty() || !standing_) {
        return trouble_;
    }
    return standing_->reason();
}

Publisher_Counters ZAV_SHM_Frame_Publisher::Body::counters() const {
    const zav_shm::Guard guard(mutex_);
    Publisher_Counters now = kept_;
    add_those_of_others(now);
    now.frames = frames_;
    now.published = published_;
    now.bytes = bytes_;
    now.too_large = too_large_;
    now.refused = refused_;
    return now;
}

void ZAV_SHM_Frame_Publisher::Body::add_those_of_others(Publisher_Counters& counters) const {
    if (standing_) {
        counters.recoveries += standing_->recoveries();
    }
    add_those_of_readers(counters);
}

void ZAV_SHM_Frame_Publisher::Body::add_those_of_readers(Publisher_Counters& counters) const {
    if (pace_) {
        counters.waits += pace_->waits();
        counters.given_up += pace_->given_up();
    }
    if (feeder_) {
        const zav_shm::Feeder_Counters fed = feeder_->counters();
        counters.slot_frames += fed.fed;
        counters.slot_passed_over += fed.passed_over;
        counters.slot_slow_reads += fed.slow_reads;
    }
}

// ---- the public class ----

ZAV_SHM_Frame_Publisher::ZAV_SHM_Frame_Publisher(Options options)
    : body_(std::make_unique<Body>(std::move(options))) {}

// What a parent opened is left as it is: its threads, which the members would wait for, are not in
// the child.
ZAV_SHM_Frame_Publisher::~ZAV_SHM_Frame_Publisher() {
    if (body_->is_parents()) {
        static_cast<void>(body_.release());
        return;
    }
    close();
}

ZAV_SHM_Frame_Publisher::Opened ZAV_SHM_Frame_Publisher::open() { return body_->open(); }

void ZAV_SHM_Frame_Publisher::close(std::chrono::milliseconds limit) { body_->close(limit); }

ZAV_SHM_Frame_Publisher::Result ZAV_SHM_Frame_Publisher::publish(std::span<const std::byte> payload,
                                                                 const Frame_Info& info) {
    return body_->publish(payload, info);
}

std::span<std::byte> ZAV_SHM_Frame_Publisher::loan(std::size_t bytes) { return body_->loan(bytes); }

ZAV_SHM_Frame_Publisher::Result ZAV_SHM_Frame_Publisher::commit(std::size_t payload_bytes,
                                                                const Frame_Info& info) {
    return body_->commit(payload_bytes, info);
}

void ZAV_SHM_Frame_Publisher::leave_out(std::uint64_t frames) { body_->leave_out(frames); }

void ZAV_SHM_Frame_Publisher::set_format(const zav_shm::Frame_Format& format) {
    body_->set_format(format);
}

bool ZAV_SHM_Frame_Publisher::key_frame_requested() { return body_->key_frame_requested(); }

Frame_State ZAV_SHM_Frame_Publisher::state() const { return body_->state(); }

std::string ZAV_SHM_Frame_Publisher::reason() const { return body_->reason(); }

Publisher_Counters ZAV_SHM_Frame_Publisher::counters() const { return body_->counters(); }

std::size_t ZAV_SHM_Frame_Publisher::page_bytes() const { return body_->page_bytes(); }

std::uint64_t ZAV_SHM_Frame_Publisher::epoch() const { return body_->epoch(); }
