// SPDX-License-Identifier: Apache-2.0
//
// zav-shm-web as a process, on real H.264, with viewers that are sockets.
#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <memory>
#include <sstream>
#include <thread>
#include <vector>

#include "frame/frame_publisher.h"
#include "ring/reader_card.h"
#include "support/threads.h"
#include "tool/tool_frames.h"
#include "web/http_client.h"

namespace {

using namespace std::chrono_literals;

constexpr const char* live = "/live?name=CAM_LOOP&channel=0&stream=0";
constexpr const char* token = "0123456789abcdef0123";

std::size_t count_of(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

class Web : public Tool_Frames {
protected:
    void SetUp() override {
        Tool_Frames::SetUp();
        camera_.emplace(start_publisher(
            {sample("sub.h264"), "--loop", "--fps", "60", "--history", "4000000", "--quiet"}));
        ASSERT_TRUE(camera_->says("publishing CAM_LOOP/0/0"));
    }
    void TearDown() override {
        if (server_) {
            server_->signal(SIGTERM);
            EXPECT_EQ(server_->wait(), 0);
            server_.reset();
        }
        end(*camera_);
        camera_.reset();
        Tool_Frames::TearDown();
    }

    void serve(const std::vector<std::string>& more = {}) {
        std::vector<std::string> command{ZAV_TEST_WEB, "--port", "0"};
        command.insert(command.end(), more.begin(), more.end());
        server_.emplace(command);
        const auto line = server_->read_line();
        ASSERT_TRUE(line);
        port_ = static_cast<std::uint16_t>(std::stoi(line->substr(line->rfind(':') + 1)));
    }

    std::optional<Tool_Process> camera_;
    std::optional<Child_Process> server_;
    std::uint16_t port_ = 0;
};

TEST_F(Web, lists_streams_with_what_a_browser_needs) {
    serve();
    Json::Value streams;
    EXPECT_TRUE(becomes_true([&] {
        const Http_Answer answer = ask(port_, get("/streams"));
        std::istringstream(answer.body) >> streams;
        return answer.status == 200 && streams.size() == 1 &&
               !streams[0]["mime"].asString().empty();
    }));
    EXPECT_EQ(streams[0]["name"].asString(), "CAM_LOOP");
    EXPECT_EQ(streams[0]["codec"].asString(), "H264");
    EXPECT_TRUE(streams[0]["mime"].asString().starts_with("video/mp4; codecs=\"avc1."));
    EXPECT_GT(streams[0]["width"].asInt(), 0);
    EXPECT_EQ(streams[0]["frames_per_second"].asDouble(), 60);
}

TEST_F(Web, list_is_no_reader_of_the_streams) {
    serve();
    std::atomic<bool> listed{false};
    std::thread asking([&] {
        for (int i = 0; i < 100; ++i) {
            EXPECT_EQ(ask(port_, get("/streams")).status, 200);
        }
        listed = true;
    });
    int cards = 0;
    while (!listed) {
        cards += static_cast<int>(zav_shm::card_names("/dev/shm/shm/rings").size());
    }
    asking.join();
    EXPECT_EQ(cards, 0) << "others would see a reader come and go, and paced ones wait for it";
}

TEST_F(Web, shows_a_live_picture_from_the_last_key_frame_on) {
    serve();
    std::this_thread::sleep_for(700ms);
    const Http_Answer answer = ask(port_, get(live), 2000ms);
    EXPECT_EQ(answer.status, 200);
    EXPECT_NE(answer.head.find("X-Published-Ms: "), std::string::npos);
    EXPECT_EQ(answer.body.substr(4, 4), "ftyp");
    EXPECT_EQ(count_of(answer.body, "moov"), 1U);
    EXPECT_GT(count_of(answer.body, "moof"), 100U);
    EXPECT_LT(count_of(answer.body, "moof"), 180U);
}

TEST_F(Web, page_takes_nothing_from_elsewhere) {
    serve();
    for (const char* path : {"/", "/page.css", "/page.js"}) {
        const Http_Answer answer = ask(port_, get(path));
        EXPECT_EQ(answer.status, 200) << path;
        EXPECT_NE(answer.head.find("default-src 'none'"), std::string::npos);
        EXPECT_NE(answer.head.find("X-Content-Type-Options: nosniff"), std::string::npos);
        EXPECT_EQ(answer.body.find("http://"), std::string::npos) << path;
        EXPECT_EQ(answer.body.find("https://"), std::string::npos) << path;
    }
}

TEST_F(Web, refuses_what_it_does_not_know) {
    serve();
    EXPECT_EQ(ask(port_, get("/etc/passwd")).status, 404);
    EXPECT_EQ(ask(port_, get("/live")).status, 400);
    EXPECT_EQ(ask(port_, get("/live?name=../x&channel=0&stream=0")).status, 400);
    EXPECT_EQ(ask(port_, get("/live?name=..&channel=0&stream=0")).status, 400);
    EXPECT_EQ(ask(port_, get("/live?name=CAM_LOOP&channel=-1&stream=0")).status, 400);
    EXPECT_EQ(ask(port_, get("/live?name=NOBODY&channel=0&stream=0")).status, 404);
    EXPECT_EQ(ask(port_,
                  "POST / HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n"
                  "Content-Length: 3\r\n\r\nabc")
                  .status,
              405);
    EXPECT_EQ(
        ask(port_, "GET / HTTP/1.1\r\nHost: evil.example\r\nConnection: close\r\n\r\n").status,
        403);
    for (const std::string& garbage :
         {std::string("\0\1\2\r\n\r\n", 7), std::string("GET\r\n\r\n"), std::string(100'000, 'A'),
          "GET / HTTP/1.1\r\n" + std::string(60'000, 'h')}) {
        ask(port_, garbage, 500ms);
    }
    EXPECT_EQ(ask(port_, get("/streams")).status, 200);
}

TEST_F(Web, beyond_loopback_needs_a_token) {
    Child_Process without({ZAV_TEST_WEB, "--port", "0", "--address", "0.0.0.0"});
    EXPECT_EQ(without.wait(), 2);
    write(path("short"), "0123\n");
    Child_Process guessable({ZAV_TEST_WEB, "--port", "0", "--token-file", path("short")});
    EXPECT_EQ(guessable.wait(), 1);
    write(path("token"), std::string(token) + "\n");
    serve({"--address", "0.0.0.0", "--token-file", path("token")});
    EXPECT_EQ(ask(port_, get("/streams")).status, 401);
    EXPECT_EQ(ask(port_, get("/?token=0123456789abcdef0124")).status, 401);
    const Http_Answer page = ask(port_, get("/?token=" + std::string(token)));
    EXPECT_EQ(page.status, 200);
    EXPECT_NE(page.head.find("HttpOnly; SameSite=Strict"), std::string::npos);
    EXPECT_EQ(
        ask(port_, get("/streams", "Cookie: zav_shm_token=" + std::string(token) + "\r\n")).status,
        200);
    EXPECT_EQ(
        ask(port_, get("/streams", "Authorization: Bearer " + std::string(token) + "\r\n")).status,
        200);
}

TEST_F(Web, viewers_that_stall_or_vanish_cost_nobody_a_frame) {
    serve({"--viewers-per-address", "16"});
    Tool_Process recorder = start_recorder({"-o", path("all.h264"), "--strict"});
    std::vector<Http_Client> stalled;
    for (int i = 0; i < 4; ++i) {
        stalled.emplace_back(port_).send(get(live));
        Http_Client vanishing(port_);
        vanishing.send(get(live));
        vanishing.read(200ms, 1);
    }
    const Http_Answer answer = ask(port_, get(live), 2000ms);
    EXPECT_GT(count_of(answer.body, "moof"), 100U);
    end(recorder);
    EXPECT_EQ(recorder.figure("lost"), 0);
    EXPECT_GT(recorder.figure("frames"), 100);
}

TEST_F(Web, takes_so_many_viewers_and_goes_on_when_they_leave) {
    serve({"--viewers-per-address", "2"});
    {
        const Http_Client one(port_);
        const Http_Client two(port_);
        one.send(get(live));
        two.send(get(live));
        EXPECT_FALSE(one.read(5000ms, 1).empty());
        EXPECT_FALSE(two.read(5000ms, 1).empty());
        EXPECT_EQ(ask(port_, get("/streams"), 1000ms).status, 0);
    }
    EXPECT_TRUE(becomes_true([&] { return ask(port_, get("/streams"), 1000ms).status == 200; }));
}

TEST_F(Web, viewers_that_left_hold_no_place) {
    serve();
    const auto files = [this] {
        const std::filesystem::directory_iterator entries("/proc/" +
                                                          std::to_string(server_->pid()) + "/fd");
        return std::distance(std::filesystem::begin(entries), std::filesystem::end(entries));
    };
    const auto before = files();
    {
        std::vector<std::unique_ptr<Http_Client>> viewers;
        for (int i = 0; i < 8; ++i) {
            viewers.push_back(std::make_unique<Http_Client>(port_));
            viewers.back()->send(get(live));
            EXPECT_FALSE(viewers.back()->read(5000ms, 1).empty());
        }
    }
    // Nobody asks meanwhile. GStreamer keeps one descriptor from the first video on.
    EXPECT_TRUE(becomes_true([&] { return files() <= before + 1; })) << files() - before;
    EXPECT_EQ(ask(port_, get("/streams"), 1000ms).status, 200);
}

// A byte a second is never silence.
TEST_F(Web, requests_that_do_not_come_to_their_end_hold_no_place) {
    serve();
    std::vector<std::unique_ptr<Http_Client>> slow;
    for (int i = 0; i < 8; ++i) {
        slow.push_back(std::make_unique<Http_Client>(port_));
        slow.back()->send("GET / HTTP/1.1\r\nX: ");
    }
    EXPECT_EQ(ask(port_, get("/streams"), 1000ms).status, 0);
    for (int second = 0; second < 12; ++second) {
        for (const auto& one : slow) {
            one->send("a");
        }
        std::this_thread::sleep_for(1s);
    }
    EXPECT_EQ(ask(port_, get("/streams"), 1000ms).status, 200);
}

// Its own connection may be used for long, and answers take as long as they like.
TEST_F(Web, connection_that_is_used_again_has_its_time_again) {
    serve();
    const Http_Client viewer(port_);
    viewer.send(get(live));
    const Http_Client kept(port_);
    for (int i = 0; i < 3; ++i) {
        kept.send("GET /streams HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
        EXPECT_NE(kept.read(1000ms, 12).find("200"), std::string::npos) << i;
        kept.read(100ms);
        std::this_thread::sleep_for(4s);
    }
    viewer.read(0ms, 1'000'000);
    EXPECT_FALSE(viewer.read(2000ms, 1).empty());
}

TEST_F(Web, ends_at_a_signal_while_viewers_are_there) {
    serve();
    const Http_Client one(port_);
    const Http_Client silent(port_);
    one.send(get(live));
    EXPECT_FALSE(one.read(5000ms, 1).empty());
    const Stopwatch watch;
    server_->signal(SIGTERM);
    EXPECT_EQ(server_->wait(), 0);
    EXPECT_LT(watch.elapsed(), 3000ms);
}

TEST_F(Web, service_file_is_valid_and_grants_nothing_to_write) {
    const std::string file = ZAV_TEST_SERVICE_FILE;
    const auto shell = [](const std::string& line) {
        return Child_Process({"/bin/sh", "-c", line}).wait();
    };
    for (const char* line : {"ExecStart=" ZAV_TEST_INSTALLED_WEB, "DynamicUser=yes",
                             "ReadOnlyPaths=/dev/shm", "CapabilityBoundingSet="}) {
        EXPECT_EQ(shell(std::string("grep -qx '") + line + "' " + file), 0) << line;
    }
    const std::string unit = path("zav-shm-web.service");
    ASSERT_EQ(shell("sed 's|" ZAV_TEST_INSTALLED_WEB "|" ZAV_TEST_WEB "|' " + file + " > " + unit),
              0);
    EXPECT_EQ(shell("test -z \"$(systemd-analyze verify --man=no " + unit + " 2>&1)\""), 0);
}

TEST_F(Web, server_needs_no_right_to_write) {
    server_.emplace(std::vector<std::string>{
        "/bin/sh", "-c",
        "exec unshare --mount --propagation unchanged sh -c 'mount --bind /dev/shm /dev/shm && "
        "mount -o remount,bind,ro /dev/shm && exec " ZAV_TEST_WEB " --port 0'"});
    const auto line = server_->read_line();
    ASSERT_TRUE(line);
    port_ = static_cast<std::uint16_t>(std::stoi(line->substr(line->rfind(':') + 1)));
    const Http_Client viewer(port_);
    viewer.send(get(live));
    EXPECT_NE(viewer.read(5000ms, 200'000).find("200 OK"), std::string::npos);
}

TEST_F(Web, video_ends_when_its_publisher_is_started_again) {
    serve();
    const Http_Client viewer(port_);
    viewer.send(get(live));
    EXPECT_FALSE(viewer.read(5000ms, 1).empty());
    camera_->signal(SIGKILL);
    camera_->status();
    camera_.emplace(start_publisher({sample("sub.h264"), "--loop", "--fps", "60", "--quiet"}));
    const Stopwatch watch;
    viewer.read(8000ms);
    EXPECT_LT(watch.elapsed(), 7000ms) << "the page asks anew";
    EXPECT_EQ(ask(port_, get(live), 2000ms).status, 200);
}

// Pipelines publish at their end a frame without a picture; anything may come from a broken one.
TEST_F(Web, frames_without_a_picture_end_no_video) {
    serve();
    const auto units =
        split(zav_shm::media::Video_Codec::h264, bytes_of(content(sample("sub.h264"))));
    ZAV_SHM_Frame_Publisher odd(
        {.name = "ODD", .format = {zav_shm::codec::h264, 64, 48, 25, 1, 0}});
    static_cast<void>(odd.open());
    std::int64_t number = 0;
    const auto publish = [&](const Bytes& bytes, bool is_key) {
        odd.publish(bytes, {.flags = is_key ? zav_shm::frame_flag::key_frame : std::uint16_t{0},
                            .pts = number++ * 40ms});
    };
    for (int i = 0; i < 5; ++i) {
        publish(units[static_cast<std::size_t>(i)].bytes, i == 0);
    }
    publish({}, false);
    const Http_Client viewer(port_);
    viewer.send(get("/live?name=ODD&channel=0&stream=0"));
    EXPECT_FALSE(viewer.read(5000ms, 1).empty());
    publish({}, false);
    publish(Bytes(1), false);
    publish(Bytes(500, std::byte{0x5a}), false);
    for (int i = 5; i < 10; ++i) {
        publish(units[static_cast<std::size_t>(i)].bytes, false);
    }
    viewer.read(500ms);
    EXPECT_EQ(ask(port_, get("/streams"), 1000ms).status, 200);
}

}  // namespace
