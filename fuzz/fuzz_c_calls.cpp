// SPDX-License-Identifier: Apache-2.0
//
// Calls of the C interface in any order, with handles that are open, closed, of another kind or
// never given out, and with whatever else a program may get wrong.
//
// The input is a series of calls: a byte that says which, and its arguments. A handle is a byte: an
// index into all those that were given out so far, or something made up.
//
// Not within it, since nothing could tell it: pointers that are wrong and not null, and the room of
// a loan that is over.
#include <zav_shm.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "bench/private_namespaces.h"
#include "fuzz/fuzz_target.h"

namespace {

using zav_shm::fuzz::require;

constexpr int calls_max = 60;
constexpr std::uint32_t limit_ms = 1;  // of what may wait
constexpr std::size_t open_max = 4;    // publishers and subscribers at a time

/// Takes values off the front of the input; zeros when it is used up.
class Input {
public:
    Input(const uint8_t* data, std::size_t size) : left_(data, size) {}

    bool is_empty() const { return left_.empty(); }

    template <typename Value>
    Value take() {
        Value value{};
        const std::size_t count = std::min(sizeof value, left_.size());
        if (count > 0) {
            std::memcpy(&value, left_.data(), count);
        }
        left_ = left_.subspan(count);
        return value;
    }

    bool flag() { return take<std::uint8_t>() % 2 == 0; }

    /// The struct's size as a rule, and now and then another one.
    template <class Struct>
    void set_size(Struct& into) {
        const auto choice = take<std::uint8_t>();
        into.size = choice < 200 ? static_cast<std::uint32_t>(sizeof into) : choice % 64;
    }

private:
    std::span<const uint8_t> left_;
};

/// What a caller knows, and what has to hold.
class Caller {
public:
    explicit Caller(Input& input) : input_(input) {}

    ~Caller() {
        for (const std::uint64_t handle : given_) {
            zav_shm_view_release(handle);
            zav_shm_subscriber_close(handle);
            zav_shm_publisher_close(handle);
        }
        require(open_.empty() || close_is_remembered(), "what was open could be closed");
    }
    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;

    void play() {
        for (int i = 0; i < calls_max && !input_.is_empty(); ++i) {
            call(input_.take<std::uint8_t>());
        }
    }

private:
    bool close_is_remembered() const {
        return std::all_of(open_.begin(), open_.end(), [](const auto& entry) {
            return zav_shm_publisher_close(entry.first) < 0 &&
                   zav_shm_subscriber_close(entry.first) < 0 &&
                   zav_shm_view_release(entry.first) < 0;
        });
    }

    void call(std::uint8_t which) {
        switch (which % 12) {
            case 0:
                open_publisher();
                break;
            case 1:
                open_subscriber();
                break;
            case 2:
            case 3:
                publish();
                break;
            case 4:
                write_in_place();
                break;
            case 5:
            case 6:
                receive();
                break;
            case 7:
                receive_view();
                break;
            case 8:
                move();
                break;
            case 9:
                change();
                break;
            case 10:
                ask();
                break;
            default:
                end();
        }
    }

    std::uint64_t handle() {
        const auto choice = input_.take<std::uint8_t>();
        if (choice < 230 && !given_.empty()) {
            return given_[choice % given_.size()];
        }
        return choice % 2 == 0 ? choice % 8 : input_.take<std::uint64_t>();
    }

    // Of a call with this handle: only one that is open, and of this kind, may do anything.
    zav_shm_status check(zav_shm_status status, std::uint64_t handle, char kind) {
        const auto place = open_.find(handle);
        const bool is_open = place != open_.end() && place->second == kind;
        require(is_open || status < 0, "what is not open is refused");
        require(!is_open || (status != ZAV_SHM_CLOSED && status != ZAV_SHM_BAD_HANDLE),
                "what is open is served");
        require(status != ZAV_SHM_BUSY, "one thread is not busy beside itself");
        if (status < 0) {
            require(*zav_shm_last_error() != '\0', "an error has a message");
        }
        require(std::strcmp(zav_shm_status_name(status), "unknown status") != 0,
                "a status has a name");
        return status;
    }

    void keep(zav_shm_status status, std::uint64_t handle, char kind) {
        require((status >= 0) == (handle != 0), "a handle is written on success, and only then");
        if (handle != 0) {
            require(open_.emplace(handle, kind).second, "no handle is given out twice");
            given_.push_back(handle);
        }
    }

    const char* text() {
        constexpr std::array texts{"CAMERA", "OTHER", "", "NONE", "a/b", "..", "with a blank"};
        const auto choice = input_.take<std::uint8_t>();
        return choice % 16 == 15 ? nullptr : texts.at(choice % 8 < 5 ? 0 : choice % texts.size());
    }

    bool has_room() const {
        return static_cast<std::size_t>(
                   std::count_if(open_.begin(), open_.end(),
                                 [](const auto& entry) { return entry.second != 'v'; })) < open_max;
    }

    void open_publisher() {
        zav_shm_publisher_options options = {};
        input_.set_size(options);
        options.center_wait_ms = -1;
        options.name = text();
        options.channel = input_.take<std::int8_t>() / 64;
        options.stream = input_.take<std::int8_t>() / 64;
        options.history_bytes = input_.take<std::uint16_t>();
        options.frame_bytes_max = input_.take<std::uint16_t>();
        options.paced = input_.flag() ? 0 : 1;
        options.pace_limit_ms = limit_ms;
        const bool is_told = input_.flag();
        std::uint64_t handle = 0;
        if (!has_room()) {
            return;
        }
        const auto status = zav_shm_publisher_open(&options, is_told ? &handle : nullptr);
        if (is_told) {
            keep(status, handle, 'p');
        } else {
            require(status < 0, "a handle has to be told");
        }
    }

    void open_subscriber() {
        zav_shm_subscriber_options options = {};
        input_.set_size(options);
        options.center_wait_ms = -1;
        options.name = input_.flag() ? nullptr : text();
        options.producer = text();
        options.channel = input_.take<std::int8_t>() / 64;
        options.stream = input_.take<std::int8_t>() / 64;
        options.start = input_.take<std::uint8_t>() % 6;
        options.back_ns = input_.take<std::int64_t>();
        options.overflow = input_.take<std::uint8_t>() % 4;
        const auto flags = input_.take<std::uint8_t>();
        options.start_at_key_frame = flags & 1U;
        options.key_frame_after_loss = flags & 2U;
        options.asks_for_key_frame = flags & 4U;
        options.untrusting = flags & 8U;
        if (has_room()) {
            std::uint64_t handle = 0;
            const auto status = zav_shm_subscriber_open(&options, &handle);
            keep(status, handle, 's');
        }
    }

    zav_shm_frame_info info() {
        zav_shm_frame_info said = {};
        input_.set_size(said);
        said.flags = input_.take<std::uint8_t>() < 250 ? input_.take<std::uint8_t>() : 1U << 20U;
        said.pts_ns = input_.take<std::int64_t>();
        return said;
    }

    void publish() {
        static const std::vector<char> bytes(std::size_t{1} << 17, 'x');
        const auto to = handle();
        const auto said = info();
        const std::size_t length = input_.take<std::uint32_t>() % bytes.size();
        const bool has_payload = input_.flag();
        const bool has_info = input_.flag();
        const auto status =
            check(zav_shm_publisher_publish(to, has_payload ? bytes.data() : nullptr, length,
                                            has_info ? &said : nullptr),
                  to, 'p');
        require(has_payload || length == 0 || status < 0, "a null pointer is refused");
    }

    void write_in_place() {
        const auto to = handle();
        const auto said = info();
        const std::size_t wanted = input_.take<std::uint16_t>();
        const auto steps = input_.take<std::uint8_t>();
        void* room = nullptr;
        std::size_t room_bytes = 0;
        if ((steps & 1U) == 0 &&
            check(zav_shm_publisher_loan(to, wanted, &room, &room_bytes), to, 'p') == ZAV_SHM_OK) {
            require(room != nullptr && room_bytes >= wanted, "a loan is as long as was asked for");
            std::memset(room, 'y', room_bytes);
        }
        if ((steps & 2U) == 0) {
            const std::size_t length =
                (steps & 4U) == 0 ? room_bytes : input_.take<std::uint32_t>();
            check(zav_shm_publisher_commit(to, length, &said), to, 'p');
        }
    }

    void receive() {
        const auto from = handle();
        std::vector<char> buffer(input_.take<std::uint16_t>() * 2U);
        zav_shm_frame frame = {};
        input_.set_size(frame);
        const bool has_buffer = input_.flag();
        const auto status =
            check(zav_shm_subscriber_receive(from, has_buffer ? buffer.data() : nullptr,
                                             buffer.size(), input_.flag() ? 0 : limit_ms, &frame),
                  from, 's');
        if (status == ZAV_SHM_OK) {
            require(frame.payload_bytes <= buffer.size(), "a frame fits into its buffer");
            check_payload({buffer.data(), static_cast<std::size_t>(frame.payload_bytes)});
        }
        require(status != ZAV_SHM_SMALL_BUFFER || frame.payload_bytes > buffer.size(),
                "what is too small is smaller");
    }

    void receive_view() {
        const auto from = handle();
        std::uint64_t view = input_.flag() ? 0 : handle();
        const std::uint64_t before = view;
        zav_shm_frame frame = {};
        frame.size = sizeof frame;
        const auto place = open_.find(view);
        const bool is_view = view == 0 || (place != open_.end() && place->second == 'v');
        const auto status = zav_shm_subscriber_receive_view(from, 0, &view, &frame);
        if (status != ZAV_SHM_OK) {
            require(view == before, "a view is written on success only");
            return;
        }
        require(is_view, "only a view shows frames");
        if (before == 0) {
            keep(status, view, 'v');
        }
        int whole = 0;
        check(zav_shm_view_is_whole(view, &whole), view, 'v');
        require(whole == 1, "a frame is whole while nobody writes");
        check_payload({static_cast<const char*>(frame.payload),
                       static_cast<std::size_t>(frame.payload_bytes)});
    }

    static void check_payload(std::span<const char> payload) {
        for (const char byte : payload) {
            require(byte == payload.front() && (byte == 'x' || byte == 'y'),
                    "a payload is what was published");
        }
    }

    void move() {
        const auto which = handle();
        const auto start = input_.take<std::uint8_t>() % 6U;
        const auto back_ns = input_.take<std::int64_t>();
        check(zav_shm_subscriber_seek(which, start, back_ns), which, 's');
        check(zav_shm_subscriber_interrupt(which), which, 's');
        if (input_.flag()) {
            check(zav_shm_subscriber_pair(which, text(), limit_ms), which, 's');
        }
        check(zav_shm_subscriber_request_key_frame(which), which, 's');
    }

    void change() {
        const auto which = handle();
        zav_shm_format format = {};
        input_.set_size(format);
        check(zav_shm_publisher_set_format(which, input_.flag() ? &format : nullptr), which, 'p');
        check(zav_shm_publisher_leave_out(which, input_.take<std::uint8_t>()), which, 'p');
        int number = 0;
        check(zav_shm_publisher_key_frame_requested(which, input_.flag() ? &number : nullptr),
              which, 'p');
        if (input_.take<std::uint8_t>() % 8 == 0) {
            check(zav_shm_subscriber_descriptor(which, &number), which, 's');
        }
    }

    void ask() {
        const auto which = handle();
        std::array<char, 64> reason{};
        zav_shm_state state = {};
        const std::size_t bytes = input_.take<std::uint8_t>() % (reason.size() + 1);
        check(zav_shm_publisher_state(which, &state, reason.data(), bytes), which, 'p');
        check(zav_shm_subscriber_state(which, &state, reason.data(), bytes), which, 's');
        zav_shm_publisher_counters published = {};
        input_.set_size(published);
        check(zav_shm_publisher_counters_of(which, &published), which, 'p');
        zav_shm_subscriber_counters received = {};
        input_.set_size(received);
        check(zav_shm_subscriber_counters_of(which, &received), which, 's');
        int whole = 0;
        check(zav_shm_view_is_whole(which, &whole), which, 'v');
    }

    void end() {
        const auto which = handle();
        switch (input_.take<std::uint8_t>() % 3) {
            case 0:
                check(zav_shm_publisher_close(which), which, 'p');
                forget(which, 'p');
                break;
            case 1:
                check(zav_shm_subscriber_close(which), which, 's');
                forget(which, 's');
                break;
            default:
                check(zav_shm_view_release(which), which, 'v');
                forget(which, 'v');
        }
    }

    void forget(std::uint64_t handle, char kind) {
        const auto place = open_.find(handle);
        if (place != open_.end() && place->second == kind) {
            open_.erase(place);
        }
    }

    Input& input_;
    std::vector<std::uint64_t> given_;    // all that there ever were
    std::map<std::uint64_t, char> open_;  // p, s or v
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    zav_shm::fuzz::silence_standard_output();
    if (std::getenv("ZAV_SHM_PRIVATE_NAMESPACES") == nullptr) {
        require(zav_shm::bench::enter_private_namespaces(), "private namespaces can be entered");
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    Caller(input).play();
    std::filesystem::remove_all("/dev/shm/shm");
    return 0;
}
