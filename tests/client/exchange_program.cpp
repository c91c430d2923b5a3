// SPDX-License-Identifier: Apache-2.0
//
// zav_test_library_client ROLE ...: producers and consumers as processes that use the library.
// What the library prints goes nowhere; standard output has the reports only.
//
//   producer NAME FIRST           offers a frame on every stream of channel 0 every 20 ms until
//                                 SIGTERM; numbers begin with FIRST, and a million later for each
//                                 further stream. Prints "ready", "alone" when 100 frames in a row
//                                 found no consumer after some did, and "left"
//   consumer NAME PRODUCER COUNT  takes frames of (0, 0) until COUNT were right; prints "ready",
//                                 what it got, and "left"
//   mover NAME FROM TO COUNT      moves to the other producer COUNT times while a thread reads
//                                 (0, 0); TO numbers its frames from 10 millions on. Prints
//                                 "ready", a line for each move, and "left"
//   dual NAME PRODUCER            reads the main stream, the sub stream and the main stream again;
//                                 prints "ready", a line for each, and "left"
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "../system/frame_pattern.h"
#include "client/shm_client_distributor.h"
#include "client/shm_client_receiver.h"
#include "client/shm_dual_stream_receiver.h"

namespace {

using Arguments = std::vector<std::string>;

constexpr int period_ms = 20;
constexpr std::int64_t ns_per_ms = 1'000'000;
constexpr std::int64_t period_ns = period_ms * ns_per_ms;
constexpr std::uint64_t stream_numbers = 1'000'000;
constexpr std::uint64_t producer_numbers = 10'000'000;
constexpr auto patience = std::chrono::seconds(60);

FILE* report = nullptr;  // the real standard output
volatile std::sig_atomic_t stopping = 0;

// ---- producer ----

int produce(const Arguments& arguments) {
    ZAV_SHM_CLIENT_DISTRIBUTOR client(arguments[1], true);
    const std::uint64_t first = std::strtoull(arguments[2].c_str(), nullptr, 10);
    std::vector<unsigned char> buffer(frame_pattern::page_size);
    std::fputs("ready\n", report);
    int refused = 0;
    bool heard = false;
    auto due = std::chrono::steady_clock::now();
    for (std::uint64_t i = 0; stopping == 0; ++i) {
        for (int stream = 0; stream < client.get_stream_num(); ++stream) {
            const std::uint64_t number = first + i + static_cast<unsigned>(stream) * stream_numbers;
            STREAM_FRAME_FORMAT frame{};
            frame_pattern::fill(frame, buffer, {number, frame_pattern::now_ns(), period_ms, false});
            const bool taken = client.get_distributor(0, stream)->distribute_frame(&frame);
            refused = taken ? 0 : refused + 1;
            heard = heard || taken;
        }
        if (heard && refused >= 100) {
            std::fputs("alone\n", report);
            heard = false;
        }
        // What a wait for nobody has cost is not made up for.
        due =
            std::max(due + std::chrono::milliseconds(period_ms), std::chrono::steady_clock::now());
        std::this_thread::sleep_until(due);
    }
    return EXIT_SUCCESS;
}

// ---- consumers ----

// A process that is kept from the processor for longer than the relay waits for it (20 ms) leaves
// posts behind, and the channel may then hand out a slot that is being written; from such a stall
// on, what is wrong is not counted.
struct Tally {
    int right = 0;
    int wrong = 0;
    int stalls = 0;
    std::uint64_t last = 0;
    std::int64_t last_ns = 0;

    void add(const STREAM_FRAME_FORMAT& frame) {
        const auto stamp = frame_pattern::stamp_of(frame);
        const std::int64_t now = frame_pattern::now_ns();
        const bool late = now - stamp.publish_ns > 20 * ns_per_ms ||
                          (last_ns != 0 && now - last_ns > period_ns + 20 * ns_per_ms);
        stalls += late ? 1 : 0;
        if (frame_pattern::is_right(frame) && stamp.number > last) {
            ++right;
        } else if (stalls == 0) {
            ++wrong;
        }
        last = stamp.number;
        last_ns = now;
    }
};

// A frame with room for the largest payload.
class Room {
public:
    Room() { frame_.payload = buffer_.data(); }
    STREAM_FRAME_FORMAT* get() { return &frame_; }

private:
    std::vector<unsigned char> buffer_ = std::vector<unsigned char>(frame_pattern::page_size);
    STREAM_FRAME_FORMAT frame_{};
};

int consume(const Arguments& arguments) {
    ZAV_SHM_CLIENT_RECEIVER client(arguments[1], arguments[2]);
    ZAV_SHM_Stream_Receiver* const endpoint = client.get_receiver(0, 0);
    Room room;
    Tally tally;
    endpoint->receive_frame(room.get());  // once first, so that "ready" means announced
    std::fputs("ready\n", report);
    const auto end = std::chrono::steady_clock::now() + patience;
    while (tally.right < std::stoi(arguments[3]) && std::chrono::steady_clock::now() < end) {
        if (endpoint->receive_frame(room.get())) {
            tally.add(*room.get());
        }
    }
    std::fprintf(report, "right=%d wrong=%d\n", tally.right, tally.wrong);
    return EXIT_SUCCESS;
}

// ---- moving between producers while reading ----

struct Arrival {
    std::int64_t at_ns;
    std::int64_t latency_ns;
    std::uint64_t number;
    bool right;

    int producer() const { return number < producer_numbers ? 0 : 1; }
};

// Takes frames on a thread of its own all the time.
class Reader {
public:
    explicit Reader(ZAV_SHM_Stream_Receiver& endpoint)
        : endpoint_(endpoint), reading_([this] { read(); }) {}
    ~Reader() {
        ended_ = true;
        reading_.join();
    }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    std::vector<Arrival> arrivals_since(std::int64_t time_ns) {
        const std::lock_guard guard(lock_);
        std::vector<Arrival> found;
        std::copy_if(arrivals_.begin(), arrivals_.end(), std::back_inserter(found),
                     [&](const Arrival& arrival) { return arrival.at_ns >= time_ns; });
        return found;
    }

private:
    void read() {
        Room room;
        while (!ended_) {
            if (endpoint_.receive_frame(room.get())) {
                const auto stamp = frame_pattern::stamp_of(*room.get());
                const std::int64_t now = frame_pattern::now_ns();
                const std::lock_guard guard(lock_);
                arrivals_.push_back({now, now - stamp.publish_ns, stamp.number,
                                     frame_pattern::is_right(*room.get())});
            }
        }
    }

    ZAV_SHM_Stream_Receiver& endpoint_;
    std::mutex lock_;  // guards the next
    std::vector<Arrival> arrivals_;
    std::atomic<bool> ended_{false};
    std::thread reading_;
};

// When the rate was back: the first of five frames of this producer in a row without one missed.
std::int64_t rate_back_ns(const std::vector<Arrival>& arrivals, int producer) {
    int in_a_row = 0;
    for (std::size_t i = 0; i < arrivals.size(); ++i) {
        const bool follows =
            i > 0 && in_a_row > 0 && arrivals[i].number == arrivals[i - 1].number + 1;
        const bool fits = arrivals[i].producer() == producer && arrivals[i].right;
        in_a_row = !fits ? 0 : follows ? in_a_row + 1 : 1;
        if (in_a_row == 5) {
            return arrivals[i - 4].at_ns;
        }
    }
    return INT64_MAX;
}

// What came of one move, over two seconds from the moment that pair_src returned.
void print_move(const std::vector<Arrival>& arrivals, int producer, std::int64_t moved_ns,
                std::int64_t asked_ns) {
    std::vector<std::int64_t> latencies;
    int others = 0;
    int wrong = 0;
    for (std::size_t i = 1; i < arrivals.size(); ++i) {  // the first was perhaps taken before
        latencies.push_back(arrivals[i].latency_ns);
        others += arrivals[i].producer() == producer ? 0 : 1;
        wrong += arrivals[i].right ? 0 : 1;
    }
    std::sort(latencies.begin(), latencies.end());
    const std::int64_t back_ns = rate_back_ns(arrivals, producer);
    std::fprintf(
        report, "frames=%zu others=%d wrong=%d back_ms=%lld asked_ms=%lld latency_us=%lld\n",
        latencies.size(), others, wrong,
        static_cast<long long>(back_ns == INT64_MAX ? 99'999 : (back_ns - moved_ns) / ns_per_ms),
        static_cast<long long>((moved_ns - asked_ns) / ns_per_ms),
        static_cast<long long>(latencies.empty() ? 0 : latencies[latencies.size() / 2] / 1000));
}

int move(const Arguments& arguments) {
    ZAV_SHM_CLIENT_RECEIVER client(arguments[1], arguments[2]);
    Reader reader(*client.get_receiver(0, 0));
    while (reader.arrivals_since(0).size() < 50) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::fputs("ready\n", report);
    for (int i = 1; i <= std::stoi(arguments[4]); ++i) {
        const std::int64_t asked_ns = frame_pattern::now_ns();
        client.pair_src(arguments[i % 2 == 1 ? 3 : 2]);
        const std::int64_t moved_ns = frame_pattern::now_ns();
        std::this_thread::sleep_for(std::chrono::seconds(2));
        print_move(reader.arrivals_since(moved_ns), i % 2, moved_ns, asked_ns);
    }
    return EXIT_SUCCESS;
}

// ---- main and sub stream ----

int read_both(const Arguments& arguments) {
    ZAV_SHM_CLIENT_RECEIVER client(arguments[1], arguments[2]);
    ZAV_SHM_Dual_Stream_Receiver streams;
    streams.set_dual_stream(client.get_receiver(0, 0), client.get_receiver(0, 1));
    streams.enable_main_stream();
    std::fputs("ready\n", report);
    Room room;
    for (const char* name : {"main", "sub", "main"}) {
        Tally tally;
        int foreign = 0;
        const auto end = std::chrono::steady_clock::now() + patience;
        // The first frame may be one that the endpoint was told of before it was left.
        for (int got = 0; got <= 50 && std::chrono::steady_clock::now() < end;) {
            if (streams.receive_frame(room.get()) == 1 && ++got > 1) {
                tally.add(*room.get());
                const bool is_sub = frame_pattern::stamp_of(*room.get()).number >= stream_numbers;
                foreign += is_sub == (streams.get_current_stream_index() == 1) ? 0 : 1;
            }
        }
        std::fprintf(report, "%s right=%d wrong=%d foreign=%d\n", name, tally.right, tally.wrong,
                     foreign);
        streams.switch_stream();
    }
    return EXIT_SUCCESS;
}

int run(const Arguments& arguments) {
    const std::string role = arguments.empty() ? "" : arguments[0];
    if (role == "producer" && arguments.size() == 3) {
        return produce(arguments);
    }
    if (role == "consumer" && arguments.size() == 4) {
        return consume(arguments);
    }
    if (role == "mover" && arguments.size() == 5) {
        return move(arguments);
    }
    if (role == "dual" && arguments.size() == 3) {
        return read_both(arguments);
    }
    std::fputs("no such role\n", stderr);
    return EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
    report = fdopen(dup(STDOUT_FILENO), "w");
    if (report == nullptr || std::freopen("/dev/null", "w", stdout) == nullptr) {
        return EXIT_FAILURE;
    }
    setvbuf(report, nullptr, _IOLBF, 0);
    std::signal(SIGTERM, [](int) { stopping = 1; });
    const int result = run({argv + 1, argv + argc});
    std::fputs("left\n", report);
    return result;
}
