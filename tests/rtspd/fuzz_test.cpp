// SPDX-License-Identifier: Apache-2.0
//
// Requests with bytes changed, cut, doubled and mixed with media, and clients that vanish.
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <random>

#include "rtspd/rtspd_fixture.h"

namespace {

using namespace std::chrono_literals;

class Fuzz : public Rtspd {
protected:
    std::ptrdiff_t count_of(const char* kind) const {
        const std::filesystem::directory_iterator entries("/proc/" + std::to_string(server->pid()) +
                                                          "/" + kind);
        return std::distance(begin(entries), end(entries));
    }
};

// ZAV_TEST_FUZZ_SECONDS and ZAV_TEST_FUZZ_SEED make it longer and other.
unsigned setting(const char* name, unsigned standard) {
    const char* const text = std::getenv(name);
    return text == nullptr ? standard : static_cast<unsigned>(std::strtoul(text, nullptr, 10));
}

std::string valid_requests() {
    const std::string url = "rtsp://127.0.0.1/CAM/0/main";
    const std::string end = "\r\n\r\n";
    return "OPTIONS " + url + " RTSP/1.0\r\nCSeq: 1" + end + "DESCRIBE " + url +
           " RTSP/1.0\r\nCSeq: 2\r\nAccept: application/sdp" + end + "SETUP " + url +
           "/stream=0 RTSP/1.0\r\nCSeq: 3\r\nTransport: RTP/AVP/TCP;unicast;interleaved=0-1" + end +
           "SETUP " + url +
           "/stream=0 RTSP/1.0\r\nCSeq: 4\r\nTransport: RTP/AVP;unicast;client_port=40000-40001" +
           end + "PLAY " + url + " RTSP/1.0\r\nCSeq: 5\r\nRange: npt=0-" + end +
           std::string("$\0\0\x08", 4) + "\x81\xc9 media" + "PAUSE " + url +
           " RTSP/1.0\r\nCSeq: 6\r\nSession: 1234" + end + "GET_PARAMETER " + url +
           " RTSP/1.0\r\nCSeq: 7\r\nContent-Length: 6" + end + "jitter" + "TEARDOWN " + url +
           " RTSP/1.0\r\nCSeq: 8" + end;
}

std::string mutated(std::string text, std::mt19937& random) {
    const auto below = [&](std::size_t limit) { return limit == 0 ? 0 : random() % limit; };
    for (std::size_t change = below(6); change > 0 && !text.empty(); --change) {
        const std::size_t at = below(text.size());
        switch (below(6)) {
            case 0:
                text[at] = static_cast<char>(random());
                break;
            case 1:
                text.erase(at, below(40));
                break;
            case 2:
                text.insert(at, text.substr(below(text.size()), below(200)));
                break;
            case 3:
                text.insert(at, std::string(below(20'000), static_cast<char>(random())));
                break;
            case 4:
                text.insert(at, "$" + std::string(3, static_cast<char>(random())));
                break;
            default:
                text.resize(at);
        }
    }
    return text;
}

TEST_F(Fuzz, mutated_requests_harm_nobody) {
    const auto camera = numbered_camera();
    ASSERT_TRUE(start_server({"--wait", "0.3"}));
    Rtsp_Client player(port);
    ASSERT_EQ(player.play("/CAM/0/main"), 200);
    std::mt19937 random(setting("ZAV_TEST_FUZZ_SEED", 17));
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::seconds(setting("ZAV_TEST_FUZZ_SECONDS", 5));
    std::int64_t last = -1;
    while (std::chrono::steady_clock::now() < end) {
        {
            Rtsp_Client client(port);
            client.send(mutated(valid_requests(), random));
            client.is_ended(std::chrono::milliseconds(random() % 20));
        }
        const auto unit = player.next_unit();
        ASSERT_TRUE(unit) << errors();
        last = number_of(unit->nal_units, key_interval, frame_bytes);
        ASSERT_GE(last, 0) << "not whole";
        ASSERT_FALSE(server->wait(0ms)) << errors();
    }
    EXPECT_GE(last, 0);
    EXPECT_EQ(Rtsp_Client(port).play("/CAM/0/main"), 200);
}

// Clients leave at each step of a session, without a word.
TEST_F(Fuzz, clients_that_vanish_leave_nothing) {
    const auto camera = numbered_camera();
    ASSERT_TRUE(start_server());
    const auto vanish = [&](int steps) {
        Rtsp_Client client(port);
        if (steps == 1) {
            client.request("DESCRIBE", "/CAM/0/main");
        } else if (steps == 2) {
            client.request("SETUP", "/CAM/0/main/stream=0",
                           "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n");
        } else if (steps == 3) {
            EXPECT_EQ(client.play("/CAM/0/main"), 200);
            client.next_unit();
        }
    };
    for (int i = 0; i < 8; ++i) {
        vanish(i % 4);
    }
    std::ptrdiff_t files = 0;
    std::ptrdiff_t threads = 0;
    ASSERT_TRUE(becomes_true([&] {
        files = count_of("fd");
        threads = count_of("task");
        return threads < 12;
    })) << threads;
    for (int i = 0; i < 100; ++i) {
        vanish(i % 4);
    }
    EXPECT_TRUE(becomes_true([&] {
        return count_of("fd") <= files + 2 && count_of("task") <= threads + 2;
    })) << count_of("fd")
        << " files, first " << files << "; " << count_of("task") << " threads, first " << threads;
}

}  // namespace
