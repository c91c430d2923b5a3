// SPDX-License-Identifier: Apache-2.0
//
// rtsp_figures first PORT COUNT           from PLAY to the first whole access unit, COUNT times
// rtsp_figures latency PORT SECONDS       from publish() to the last packet of the frame
// rtsp_figures clients PORT COUNT SECONDS PID
//                                         processor time of the server with so many clients
// rtsp_figures hostile PORT SECONDS JPEG  hostile producers, and clients of theirs
//
// For scripts/rtsp, which starts the server. Prints a line of a table each.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ipc/monotonic_clock.h"
#include "rtspd/camera.h"
#include "rtspd/hostile_cameras.h"
#include "rtspd/rtsp_client.h"

namespace {

using namespace std::chrono_literals;

constexpr std::uint64_t key_interval = 150;  // 5 s
constexpr std::size_t frame_bytes = 8333;    // 2 Mbit/s
constexpr std::chrono::microseconds frame_interval{33'333};
const std::string path = "/FIGURES/0/main";

std::unique_ptr<Camera> start_camera() {
    auto camera = std::make_unique<Camera>(
        camera_options("FIGURES", 0, {.codec = zav_shm::codec::h264}, 4'000'000), frame_interval,
        [](std::uint64_t number) { return numbered_frame(number, key_interval, frame_bytes); });
    std::this_thread::sleep_for(1s);
    return camera;
}

void print(const char* what, std::vector<double> ms) {
    if (ms.empty()) {
        std::printf("| %-44s nothing came\n", what);
        return;
    }
    std::sort(ms.begin(), ms.end());
    const auto share = [&ms](double part) {
        return ms[std::min(static_cast<std::size_t>(part * static_cast<double>(ms.size())),
                           ms.size() - 1)];
    };
    std::printf("| %-44s p50 %8.2f ms   p99 %8.2f ms   max %8.2f ms   of %zu\n", what, share(0.5),
                share(0.99), ms.back(), ms.size());
}

int first(int port, int count) {
    const auto camera = start_camera();
    std::minstd_rand random(1);
    std::vector<double> ms;
    for (int i = 0; i < count; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(static_cast<int>(random() % 400)));
        Rtsp_Client client(port);
        if (client.play(path) != 200) {
            return 1;
        }
        const std::int64_t asked_ns = client.sent_ns();
        const auto unit = client.next_unit();
        if (!unit || number_of(unit->nal_units, key_interval, frame_bytes) % 150 != 0) {
            return 1;
        }
        ms.push_back(static_cast<double>(unit->last_ns - asked_ns) / 1e6);
    }
    print("PLAY to the first whole key frame", ms);
    std::sort(ms.begin(), ms.end());
    return ms[ms.size() / 2] < 200 ? 0 : 1;
}

int latency(int port, int seconds) {
    const auto camera = start_camera();
    Rtsp_Client client(port);
    if (client.play(path) != 200) {
        return 1;
    }
    std::vector<double> ms;
    const std::uint64_t live = camera->published();
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < end) {
        const auto unit = client.next_unit();
        const std::int64_t number =
            unit ? number_of(unit->nal_units, key_interval, frame_bytes) : -1;
        if (number < 0) {
            return 1;
        }
        if (static_cast<std::uint64_t>(number) > live) {
            const auto published = camera->published_ns(static_cast<std::uint64_t>(number));
            ms.push_back(static_cast<double>(unit->last_ns - published) / 1e6);
        }
    }
    print("publish() to the frame's last packet", ms);
    std::sort(ms.begin(), ms.end());
    return !ms.empty() && ms[ms.size() * 99 / 100] < 5 ? 0 : 1;
}

double cpu_seconds(const std::string& pid) {
    std::ifstream in("/proc/" + pid + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    unsigned long user = 0;
    unsigned long system = 0;
    const char* const behind_name = std::strrchr(text.c_str(), ')');
    if (behind_name == nullptr ||
        std::sscanf(behind_name, ") %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &user,
                    &system) != 2) {
        return 0;
    }
    return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

int clients(int port, int count, int seconds, const std::string& pid) {
    const auto camera = start_camera();
    std::atomic<bool> stops{false};
    std::atomic<int> wrong{0};
    std::atomic<std::uint64_t> units{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&] {
            Rtsp_Client client(port);
            bool is_well = client.play(path) == 200;
            while (is_well && !stops) {
                const auto unit = client.next_unit();
                is_well = unit && !unit->follows_gap &&
                          number_of(unit->nal_units, key_interval, frame_bytes) >= 0;
                ++units;
            }
            wrong += is_well ? 0 : 1;
        });
    }
    std::this_thread::sleep_for(3s);
    const double cpu = cpu_seconds(pid);
    const std::int64_t begun = zav_shm::monotonic_ns();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    const double share =
        (cpu_seconds(pid) - cpu) * 1e9 / static_cast<double>(zav_shm::monotonic_ns() - begun);
    stops = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::printf("| %-44s %.1f %% of a core, %llu frames, %d clients with a gap\n",
                (std::to_string(count) + " clients of 2 Mbit/s over TCP").c_str(), share * 100,
                static_cast<unsigned long long>(units), wrong.load());
    return wrong == 0 && share < 0.15 ? 0 : 1;
}

int hostile(int port, int seconds, const std::string& jpeg) {
    const Hostile_Cameras cameras(jpeg);
    const auto camera = start_camera();
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    std::uint64_t sessions = 0;
    std::uint64_t frames = 0;
    while (std::chrono::steady_clock::now() < end) {
        std::vector<std::unique_ptr<Rtsp_Client>> players;
        for (const std::string& stream : cameras.paths()) {
            players.push_back(std::make_unique<Rtsp_Client>(port));
            sessions += players.back()->play(stream) == 200 ? 1U : 0U;
        }
        Rtsp_Client client(port);
        if (client.play(path) != 200) {
            std::printf("| hostile producers: the good stream is not served any more\n");
            return 1;
        }
        for (int i = 0; i < 100; ++i, ++frames) {
            const auto unit = client.next_unit();
            if (!unit || unit->follows_gap ||
                number_of(unit->nal_units, key_interval, frame_bytes) < 0) {
                std::printf("| hostile producers: the good stream has a gap\n");
                return 1;
            }
        }
    }
    std::printf(
        "| hostile producers for %d s: %llu sessions of theirs, %llu frames of a good stream "
        "without a gap\n",
        seconds, static_cast<unsigned long long>(sessions),
        static_cast<unsigned long long>(frames));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    const auto number = [&words](std::size_t at) { return std::atoi(words.at(at).c_str()); };
    const std::string what = words.empty() ? "" : words.front();
    if (what == "first" && words.size() == 3) {
        return first(number(1), number(2));
    }
    if (what == "latency" && words.size() == 3) {
        return latency(number(1), number(2));
    }
    if (what == "clients" && words.size() == 5) {
        return clients(number(1), number(2), number(3), words[4]);
    }
    if (what == "hostile" && words.size() == 4) {
        return hostile(number(1), number(2), words[3]);
    }
    std::fprintf(stderr, "rtsp_figures: see the beginning of rtsp_figures.cpp\n");
    return 2;
}
