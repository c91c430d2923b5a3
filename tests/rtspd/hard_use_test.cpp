// SPDX-License-Identifier: Apache-2.0
//
// Clients, producers and payloads that do not behave.
#include <csignal>
#include <thread>

#include "rtspd/hostile_cameras.h"
#include "rtspd/rtspd_fixture.h"

namespace {

using namespace std::chrono_literals;
namespace codec = zav_shm::codec;

class Hard_Use : public Rtspd {};

TEST_F(Hard_Use, client_that_stops_reading_is_sent_away_and_disturbs_nobody) {
    const auto camera = numbered_camera("CAM", 40'000);  // 16 Mbit/s fill all buffers in a second
    ASSERT_TRUE(start_server({"--stall", "2"}));
    Rtsp_Client stopped(port, 8192);
    ASSERT_EQ(stopped.play("/CAM/0/main"), 200);
    Rtsp_Client reader(port);
    ASSERT_EQ(reader.play("/CAM/0/main"), 200);
    expect_units(reader, 300, 40'000);
    EXPECT_TRUE(stopped.is_ended());
    expect_units(reader, 20, 40'000);
}

TEST_F(Hard_Use, slow_client_goes_on_with_a_whole_key_frame) {
    const auto camera = numbered_camera("CAM", 40'000);
    ASSERT_TRUE(start_server({"--cache", "1000000"}));
    Rtsp_Client slow(port, 8192);
    ASSERT_EQ(slow.play("/CAM/0/main"), 200);
    const std::uint64_t begun = camera->published();
    ASSERT_TRUE(becomes_true([&] { return camera->published() > begun + 250; }));
    std::int64_t last = -1;
    int jumps = 0;
    for (int i = 0; i < 200; ++i) {
        const auto unit = slow.next_unit();
        ASSERT_TRUE(unit);
        EXPECT_FALSE(unit->follows_gap);
        const std::int64_t number = number_of(unit->nal_units, key_interval, 40'000);
        ASSERT_GE(number, 0) << "not whole";
        if (last >= 0 && number != last + 1) {
            ++jumps;
            EXPECT_EQ(number % static_cast<std::int64_t>(key_interval), 0);
        }
        last = number;
    }
    EXPECT_GE(jumps, 1);
}

TEST_F(Hard_Use, producer_restart_is_played_through) {
    auto camera = numbered_camera();
    ASSERT_TRUE(start_server());
    Rtsp_Client client(port);
    ASSERT_EQ(client.play("/CAM/0/main"), 200);
    expect_units(client, 60);
    camera.reset();
    camera = numbered_camera();
    std::uint32_t time = 0;
    bool begins_anew = false;
    for (int i = 0; i < 200 && !begins_anew; ++i) {
        const auto unit = client.next_unit();
        ASSERT_TRUE(unit) << "the session did not go on";
        const std::int64_t number = number_of(unit->nal_units, key_interval, frame_bytes);
        ASSERT_GE(number, 0);
        begins_anew = number == 0;
        if (i > 0) {
            const auto step = static_cast<std::int32_t>(unit->time - time);
            EXPECT_GT(step, 0) << "times go back";
            EXPECT_LT(step, 90'000 * 5);
        }
        time = unit->time;
    }
    EXPECT_TRUE(begins_anew);
    expect_units(client, 50);
}

TEST_F(Hard_Use, changed_format_ends_the_session) {
    auto camera = numbered_camera();
    ASSERT_TRUE(start_server());
    Rtsp_Client client(port);
    ASSERT_EQ(client.play("/CAM/0/main"), 200);
    expect_units(client, 30);
    camera.reset();
    camera = file_camera("plain.h265", codec::h265);
    EXPECT_TRUE(client.is_ended());
    EXPECT_NE(errors().find("CAM/0/0: has another format now"), std::string::npos) << errors();
    Rtsp_Client again(port);
    EXPECT_NE(again.request("DESCRIBE", "/CAM/0/main").body.find("H265"), std::string::npos);
}

TEST_F(Hard_Use, client_before_the_producer_waits_at_a_mount_alone) {
    ASSERT_TRUE(
        start_server({"--mount", "CAM/0/main", "--mount", "/door=DOOR/0/main", "--wait", "4"}));
    Rtsp_Client early(port);
    std::thread later([&] {
        std::this_thread::sleep_for(500ms);
        const auto camera = numbered_camera();
        std::this_thread::sleep_for(6s);
    });
    EXPECT_EQ(early.play("/CAM/0/main"), 200);
    expect_units(early, 30);
    Rtsp_Client unknown(port);
    EXPECT_EQ(unknown.play("/NOBODY/0/main"), 404);
    EXPECT_EQ(unknown.play("/../CAM/0/main"), 404);
    EXPECT_EQ(unknown.play("/CAM/00/main"), 404);
    Rtsp_Client in_vain(port);
    EXPECT_EQ(in_vain.play("/door"), 503);
    EXPECT_NE(errors().find("DOOR/0/0: no picture for a client"), std::string::npos) << errors();
    later.join();
}

TEST_F(Hard_Use, stream_that_cannot_be_sent_is_refused_with_its_reason) {
    const Camera camera(camera_options("CAM", 0, {.codec = codec::raw}), 20ms, [](std::uint64_t) {
        return Camera_Frame{std::string(100, 'x'), zav_shm::frame_flag::key_frame};
    });
    ASSERT_TRUE(start_server({"--wait", "1"}));
    Rtsp_Client client(port);
    EXPECT_EQ(client.play("/CAM/0/main"), 415);
    EXPECT_NE(errors().find("its frames are RAW"), std::string::npos) << errors();
}

TEST_F(Hard_Use, frames_beyond_the_limit_are_left_out) {
    const Camera camera(
        camera_options("CAM", 0, {.codec = codec::h264}), 20ms, [](std::uint64_t number) {
            return numbered_frame(number, key_interval, number % 50 == 30 ? 100'000 : frame_bytes);
        });
    ASSERT_TRUE(start_server({"--cache", "150000"}));
    Rtsp_Client client(port);
    ASSERT_EQ(client.play("/CAM/0/main"), 200);
    for (int i = 0; i < 150; ++i) {
        const auto unit = client.next_unit();
        ASSERT_TRUE(unit);
        EXPECT_GE(number_of(unit->nal_units, key_interval, frame_bytes), 0);
    }
}

// The short form of scripts/rtsp fuzz.
TEST_F(Hard_Use, random_payloads_end_no_server) {
    shell(
        "ffmpeg -loglevel error -f lavfi -i testsrc2=size=64x64 -frames:v 1 -pix_fmt yuvj420p "
        "-f mjpeg one.jpg");
    const Hostile_Cameras hostile(path("one.jpg"));
    const auto camera = numbered_camera();
    ASSERT_TRUE(start_server({"--wait", "0.3"}));
    std::vector<std::unique_ptr<Rtsp_Client>> clients;
    for (int round = 0; round < 2; ++round) {
        clients.clear();
        for (const std::string& stream : hostile.paths()) {
            clients.push_back(std::make_unique<Rtsp_Client>(port));
            clients.back()->play(stream);  // whatever comes of it
        }
        Rtsp_Client client(port);
        ASSERT_EQ(client.play("/CAM/0/main"), 200);
        expect_units(client, 50);
        ASSERT_FALSE(server->wait(0ms)) << errors();
    }
}

TEST_F(Hard_Use, malformed_requests_harm_nobody) {
    const auto camera = numbered_camera();
    ASSERT_TRUE(start_server());
    Rtsp_Client player(port);
    ASSERT_EQ(player.play("/CAM/0/main"), 200);
    const std::string url = "rtsp://127.0.0.1/CAM/0/main";
    for (const std::string& text : std::vector<std::string>{
             "\r\n\r\n",
             std::string(100'000, 'A'),
             std::string("\0\0\0\0\r\n\r\n", 8),
             "GET / HTTP/1.1\r\n\r\n",
             "DESCRIBE\r\n\r\n",
             "DESCRIBE " + url + " RTSP/9.9\r\n\r\n",
             "DESCRIBE " + url + " RTSP/1.0\r\nCSeq: -1\r\nContent-Length: -5\r\n\r\n",
             "DESCRIBE " + url + " RTSP/1.0\r\nCSeq: 1\r\nContent-Length: 4294967295\r\n\r\nx",
             "DESCRIBE " + url + "%00%ff/../.. RTSP/1.0\r\nCSeq: 1\r\n\r\n",
             "DESCRIBE * RTSP/1.0\r\nCSeq: 1\r\n\r\n",
             "DESCRIBE rtsp:// RTSP/1.0\r\nCSeq: 1\r\n\r\n",
             "SETUP " + url + "/stream=0 RTSP/1.0\r\nCSeq: 1\r\nTransport: ;;;\r\n\r\n",
             "SETUP " + url + " RTSP/1.0\r\nCSeq: 1\r\n\r\n",
             "SETUP * RTSP/1.0\r\nCSeq: 1\r\n\r\n",
             "PLAY " + url + " RTSP/1.0\r\nCSeq: 1\r\nSession: none\r\n\r\n",
             "TEARDOWN " + url + " RTSP/1.0\r\nCSeq: 1\r\n\r\n",
             "ANNOUNCE " + url +
                 " RTSP/1.0\r\nCSeq: 1\r\nContent-Type: application/sdp\r\n"
                 "Content-Length: 4\r\n\r\nv=0\n",
             "RECORD " + url + " RTSP/1.0\r\nCSeq: 1\r\n\r\n",
             std::string("$\0\xff\xff", 4) + std::string(70'000, '\xff'),
             "OPTIONS * RTSP/1.0\r\n" + std::string(50'000, 'x') + ": y\r\n\r\n"}) {
        Rtsp_Client client(port);
        client.send(text);
        client.is_ended(50ms);
    }
    expect_units(player, 20);
    EXPECT_EQ(Rtsp_Client(port).request("OPTIONS", "/").status, 200);
    EXPECT_FALSE(server->wait(0ms)) << errors();
}

TEST_F(Hard_Use, stream_is_described_again_and_then_played) {
    const auto camera = numbered_camera();
    ASSERT_TRUE(start_server());
    Rtsp_Client client(port);
    const Rtsp_Client::Reply first = client.request("DESCRIBE", "/CAM/0/main");
    ASSERT_EQ(first.status, 200);
    for (int i = 0; i < 3; ++i) {
        const Rtsp_Client::Reply again = client.request("DESCRIBE", "/CAM/0/main");
        ASSERT_EQ(again.status, 200) << errors();
        EXPECT_EQ(again.body, first.body);
    }
    ASSERT_EQ(client.play("/CAM/0/main"), 200);
    expect_units(client, 30);
}

TEST_F(Hard_Use, killed_server_harms_nobody_and_starts_again) {
    const auto camera = numbered_camera();
    ASSERT_TRUE(start_server());
    Rtsp_Client client(port);
    ASSERT_EQ(client.play("/CAM/0/main"), 200);
    expect_units(client, 10);
    server->kill();
    EXPECT_TRUE(client.is_ended());
    const std::uint64_t before = camera->published();
    EXPECT_TRUE(becomes_true([&] { return camera->published() > before + 20; }));
    ASSERT_TRUE(start_server());
    Rtsp_Client next(port);
    ASSERT_EQ(next.play("/CAM/0/main"), 200);
    expect_units(next, 30);
}

TEST_F(Hard_Use, server_needs_no_right_to_write) {
    const auto camera = numbered_camera();
    ASSERT_TRUE(start_server({},
                             "exec unshare --mount --propagation unchanged sh -c 'mount --bind "
                             "/dev/shm /dev/shm && mount -o remount,bind,ro /dev/shm && exec "
                             "\"$@\"' sh \"$@\""));
    Rtsp_Client client(port);
    EXPECT_EQ(client.play("/CAM/0/main"), 200);
    expect_units(client, 30);
    EXPECT_EQ(shell("ls /dev/shm/shm/rings | grep -c reader").output, "0\n");
}

}  // namespace
