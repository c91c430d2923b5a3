// SPDX-License-Identifier: Apache-2.0
//
// What hostile publishers, readers and a center may leave in the folder of the rings, through the
// looks of whoever shows it.
//
// The input: steps, each a byte that says which, and its arguments:
//
//   0  a ring: which (1), its length in blocks of 64 (1), the 48 bytes of its facts, head, tail,
//      state (4 each), bytes (8), how many entries (1), of 32 bytes each
//   1  a card: which (1), whether its reader lives (1), the first 328 bytes, and one byte for the
//      histogram
//   2  the center's status: its length (2), its text
//   3  another file: which (1), its length (1), its content
//   4  a file goes: which (1)
//   5  a look
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "apps/watch/collector.h"
#include "bench/private_namespaces.h"
#include "fuzz/fuzz_target.h"
#include "ipc/file_lock.h"

namespace {

using namespace zav_shm;
using namespace zav_shm::watch;
using fuzz::require;

constexpr int steps_max = 64;
const std::string folder = "/dev/shm/shm";
const std::string rings = folder + "/rings";

constexpr std::array<const char*, 4> rings_to_write = {"CAM_LOOP_0_0", "CAM_LOOP_0_1", "A_B_1_0",
                                                       "\x1b[2J_3_1"};
constexpr std::array<const char*, 4> cards = {"0000000000000001.reader", "0000000000000002.reader",
                                              "0000000000000003.reader", "0000000000000004.reader"};
constexpr std::array<const char*, 4> other_names = {"CAM_LOOP_0_0.lock", "PLAYER_0_0.route",
                                                    "x.reader", "_0_0"};

/// Takes values off the front of the input; zeros when it is used up.
class Input {
public:
    Input(const uint8_t* data, std::size_t size) : left_(data, size) {}

    bool is_empty() const { return left_.empty(); }

    std::string take_text(std::size_t length) {
        std::string text(length, '\0');
        const std::size_t count = std::min(length, left_.size());
        std::copy_n(left_.begin(), count, text.begin());
        left_ = left_.subspan(count);
        return text;
    }

    template <typename Value>
    Value take() {
        Value value{};
        const std::string bytes = take_text(sizeof value);
        std::memcpy(&value, bytes.data(), sizeof value);
        return value;
    }

    template <typename Names>
    std::string one_of(const Names& names) {
        return names[take<std::uint8_t>() % names.size()];
    }

private:
    std::span<const uint8_t> left_;
};

class Folder {
public:
    Folder() { std::filesystem::create_directories(rings); }
    ~Folder() { std::filesystem::remove_all(folder); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    void put(const std::string& path, const std::string& content, bool is_held = false) {
        held_.erase(path);
        unlink(path.c_str());
        Descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR));
        require(pwrite(file.get(), content.data(), content.size(), 0) ==
                    static_cast<ssize_t>(content.size()),
                "the file can be written");
        if (is_held) {
            require(take_file_lock(file.get()), "the file can be locked");
            held_[path] = std::move(file);
        }
    }

    void remove(const std::string& path) {
        held_.erase(path);
        unlink(path.c_str());
    }

private:
    std::map<std::string, Descriptor> held_;
};

template <class Value>
void lay(std::string& file, std::size_t offset, const Value& value) {
    if (offset + sizeof value <= file.size()) {
        std::memcpy(file.data() + offset, &value, sizeof value);
    }
}

void put_ring(Input& input, Folder& files) {
    const std::string name = input.one_of(rings_to_write);
    std::string file(std::size_t{input.take<std::uint8_t>()} * 64, '\0');
    lay(file, 0, input.take<Ring_Facts>());
    for (const std::size_t offset : {ring_head_offset, ring_tail_offset, ring_state_offset}) {
        lay(file, offset, input.take<std::uint32_t>());
    }
    lay(file, ring_bytes_offset, input.take<std::uint64_t>());
    const auto entries = input.take<std::uint8_t>();
    for (std::size_t i = 0; i < entries; ++i) {
        lay(file, ring_header_bytes + i * sizeof(Ring_Entry), input.take<Ring_Entry>());
    }
    files.put(rings + "/" + name, file, entries % 2 == 0);
}

void put_card(Input& input, Folder& files) {
    const std::string name = input.one_of(cards);
    const bool is_held = input.take<std::uint8_t>() % 2 == 0;
    std::string file =
        input.take_text(offsetof(Reader_Card, counters) + sizeof(Reader_Card::Counters));
    file.resize(sizeof(Reader_Card));
    std::memset(file.data() + offsetof(Reader_Card, latency), input.take<std::uint8_t>(),
                sizeof Reader_Card{}.latency);
    files.put(rings + "/" + name, file, is_held);
}

// ---- what must hold ----

bool is_rate(double rate) { return std::isfinite(rate) && rate >= 0; }

bool is_time(const std::optional<std::int64_t>& time) { return time.value_or(0) >= 0; }

void check(const Consumer& consumer) {
    require(consumer.not_reading_ns >= 0 && is_time(consumer.last_frame_age_ns), "time goes on");
    require(consumer.name.size() < 32 || consumer.kind == Consumer::Kind::fixed,
            "a name ends within its field");
    require((consumer.state == Consumer::State::not_reading) <= (consumer.not_reading_ns > 0),
            "who does not read has not for some time");
    if (consumer.rates) {
        require(is_rate(consumer.rates->frames) && is_rate(consumer.rates->bits) &&
                    is_rate(consumer.rates->lost()),
                "a rate is a rate");
    }
    if (consumer.recent_latency) {
        require(consumer.recent_latency->p50_ns <= consumer.recent_latency->p99_ns,
                "one half is less than nearly all");
    }
}

void check(const Stream& stream) {
    require((stream.state == Stream::State::unread) == !stream.problem.empty(),
            "what is not read is told");
    require(stream.history.ns >= 0 && is_time(stream.age_ns) && is_time(stream.key_age_ns) &&
                is_time(stream.key_interval_ns),
            "time goes on");
    require(stream.history.bytes <= stream.history.bytes_of_room, "a history lies in its room");
    require(stream.history.frames <= ring_index_max, "and in its index");
    if (stream.rates) {
        require(is_rate(stream.rates->frames) && is_rate(stream.rates->bits), "a rate is a rate");
    }
    for (const Consumer& consumer : stream.consumers) {
        require(consumer.of == stream.id, "consumers stand below their stream");
        check(consumer);
    }
}

void check(const Snapshot& snapshot) {
    std::size_t with_card = snapshot.elsewhere.size();
    for (const Stream& stream : snapshot.streams) {
        check(stream);
        with_card += static_cast<std::size_t>(
            std::count_if(stream.consumers.begin(), stream.consumers.end(),
                          [](const Consumer& consumer) { return !consumer.card.empty(); }));
    }
    for (const Consumer& consumer : snapshot.elsewhere) {
        check(consumer);
    }
    require(with_card <= cards.size(), "a card is one consumer");
    require(snapshot.omitted == 0, "nothing is left out of so little");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    fuzz::silence_standard_output();
    if (std::getenv("ZAV_SHM_PRIVATE_NAMESPACES") == nullptr) {
        require(bench::enter_private_namespaces(), "private namespaces can be entered");
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    Folder files;
    Collector collector("shm");
    for (int step = 0; step < steps_max && !input.is_empty(); ++step) {
        switch (input.take<std::uint8_t>() % 6) {
            case 0:
                put_ring(input, files);
                break;
            case 1:
                put_card(input, files);
                break;
            case 2:
                files.put(folder + "/center_status.json",
                          input.take_text(input.take<std::uint16_t>() % 4096));
                break;
            case 3: {
                const std::string name = input.one_of(other_names);
                files.put(rings + "/" + name, input.take_text(input.take<std::uint8_t>()));
                break;
            }
            case 4:
                files.remove(rings + "/" + input.one_of(cards));
                files.remove(rings + "/" + input.one_of(rings_to_write));
                break;
            default:
                check(collector.look());
        }
    }
    check(collector.look());
    return 0;
}
