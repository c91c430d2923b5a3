// SPDX-License-Identifier: Apache-2.0
//
// Clients that play: programs that users have, and a raw client that looks at every byte.
#include <algorithm>
#include <csignal>
#include <fstream>
#include <iterator>
#include <thread>

#include "rtspd/rtspd_fixture.h"

namespace {

using namespace std::chrono_literals;
namespace codec = zav_shm::codec;

std::string file_content(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class Play : public Rtspd {
protected:
    // What ffprobe says of a stream, or why it says nothing.
    std::string probed(const std::string& path, const std::string& options = "") {
        return shell(
                   "timeout 20 ffprobe -loglevel error -show_entries "
                   "stream=codec_name,width,height,sample_rate,channels -of csv=p=0 " +
                   options + " $URL" + path)
            .output;
    }
};

TEST_F(Play, ffprobe_reads_h264_over_tcp_and_udp) {
    const auto camera = file_camera("plain.h264", codec::h264);
    ASSERT_TRUE(start_server());
    EXPECT_EQ(probed("/CAM/0/main", "-rtsp_transport tcp"), probed("/CAM/0/0"));
    EXPECT_EQ(probed("/CAM/0/main", "-rtsp_transport udp").rfind("h264,", 0), 0U)
        << probed("/CAM/0/main");
}

TEST_F(Play, description_has_the_parameter_sets_before_the_first_client_plays) {
    const auto camera = numbered_camera();
    ASSERT_TRUE(start_server());
    Rtsp_Client client(port);
    const auto reply = client.request("DESCRIBE", "/CAM/0/main", "Accept: application/sdp\r\n");
    EXPECT_EQ(reply.status, 200);
    EXPECT_NE(reply.body.find("sprop-parameter-sets="), std::string::npos) << reply.body;
}

TEST_F(Play, ffmpeg_copies_every_access_unit_byte_for_byte) {
    const std::vector<Camera_Frame> source = frames_of("slices_aud.h264");
    const auto camera = file_camera("slices_aud.h264", codec::h264);
    ASSERT_TRUE(start_server());
    for (const char* transport : {"tcp", "udp"}) {
        const Ended ended =
            shell(std::string("timeout 20 ffmpeg -loglevel error -y -rtsp_transport ") + transport +
                  " -i $URL/CAM/0/main -c copy -frames:v 150 -f h264 copy.h264");
        ASSERT_EQ(ended.status, 0) << ended.output;
        const auto got = nal_units_of(file_content(path("copy.h264")));
        ASSERT_GE(got.size(), 150U);
        std::vector<std::string> published;
        while (published.size() < got.size() * 2 + 1000) {
            for (const Camera_Frame& frame : source) {
                const auto units = nal_units_of(frame.bytes);
                published.insert(published.end(), units.begin(), units.end());
            }
        }
        EXPECT_NE(std::search(published.begin(), published.end(), got.begin(), got.end()),
                  published.end())
            << transport;
    }
}

TEST_F(Play, gstreamer_plays) {
    const auto camera = file_camera("plain.h264", codec::h264);
    ASSERT_TRUE(start_server());
    const Ended ended = shell(
        "timeout 20 gst-launch-1.0 -q rtspsrc location=$URL/CAM/0/main latency=100 ! "
        "rtph264depay ! h264parse ! avdec_h264 ! fakesink num-buffers=60 sync=false");
    EXPECT_EQ(ended.status, 0) << ended.output;
}

TEST_F(Play, late_client_begins_with_the_newest_key_frame) {
    const auto camera = numbered_camera();
    ASSERT_TRUE(becomes_true([&] { return camera->published() > key_interval * 2 + 10; }));
    ASSERT_TRUE(start_server());
    Rtsp_Client client(port);
    ASSERT_EQ(client.play("/CAM/0/main"), 200);
    const auto unit = client.next_unit();
    ASSERT_TRUE(unit);
    const std::int64_t number = number_of(unit->nal_units, key_interval, frame_bytes);
    EXPECT_EQ(number % static_cast<std::int64_t>(key_interval), 0);
    EXPECT_GE(number, static_cast<std::int64_t>(key_interval * 2));
    expect_units(client, 100);
}

// Between the description and PLAY any time may pass.
TEST_F(Play, picture_is_that_of_play_and_not_of_describe) {
    const auto camera = numbered_camera();
    ASSERT_TRUE(start_server());
    Rtsp_Client client(port);
    ASSERT_EQ(client.request("DESCRIBE", "/CAM/0/main", "Accept: application/sdp\r\n").status, 200);
    const std::uint64_t described = camera->published();
    ASSERT_TRUE(becomes_true([&] { return camera->published() > described + key_interval * 3; }));
    ASSERT_EQ(client.set_up("/CAM/0/main"), 200);
    const auto unit = client.next_unit();
    ASSERT_TRUE(unit);
    EXPECT_GE(number_of(unit->nal_units, key_interval, frame_bytes),
              static_cast<std::int64_t>(described + key_interval));
}

TEST_F(Play, twenty_clients_get_every_frame) {
    const auto camera = numbered_camera();
    ASSERT_TRUE(start_server());
    std::vector<std::thread> threads;
    for (int i = 0; i < 20; ++i) {
        threads.emplace_back([this] {
            Rtsp_Client client(port);
            EXPECT_EQ(client.play("/CAM/0/main"), 200);
            expect_units(client, 150);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(shell("ls /dev/shm/shm/rings | grep -c reader").output, "1\n");
}

TEST_F(Play, h265_is_played) {
    const auto camera = file_camera("plain.h265", codec::h265);
    ASSERT_TRUE(start_server());
    EXPECT_EQ(probed("/CAM/0/main").rfind("hevc,", 0), 0U) << probed("/CAM/0/main");
}

TEST_F(Play, aac_is_played_without_its_headers) {
    const auto camera = file_camera("tone_stereo.aac", codec::aac, 2);
    ASSERT_TRUE(start_server());
    const std::string heard = probed("/CAM/0/audio");
    EXPECT_EQ(heard.rfind("aac,", 0), 0U) << heard;
    EXPECT_NE(heard.find(",2"), std::string::npos) << heard;
    const Ended decoded =
        shell("timeout 20 ffmpeg -loglevel error -i $URL/CAM/0/audio -t 1 -f null -");
    EXPECT_EQ(decoded.status, 0);
    EXPECT_EQ(decoded.output, "");
}

TEST_F(Play, opus_and_g711_are_played) {
    const auto key = zav_shm::frame_flag::key_frame;
    // TOC byte of 20 ms, mono, SILK: silence that every decoder takes.
    const Camera opus(
        camera_options("CAM", 0, {.codec = codec::opus, .rate_num = 48000, .channels = 1}), 20ms,
        [key](std::uint64_t) {
            return Camera_Frame{std::string("\x08\x0b\xe4\xc1\x36\xec\xc5\x80", 8), key};
        });
    const Camera alaw(
        camera_options("CAM", 1, {.codec = codec::pcma, .rate_num = 8000, .channels = 1}), 20ms,
        [key](std::uint64_t) {
            return Camera_Frame{std::string(160, '\x55'), key};
        });
    const Camera mulaw(
        camera_options("CAM", 3, {.codec = codec::pcmu, .rate_num = 8000, .channels = 1}), 20ms,
        [key](std::uint64_t) {
            return Camera_Frame{std::string(160, '\x7f'), key};
        });
    ASSERT_TRUE(start_server());
    EXPECT_EQ(probed("/CAM/0/main").rfind("opus,48000", 0), 0U) << probed("/CAM/0/main");
    EXPECT_EQ(probed("/CAM/0/sub").rfind("pcm_alaw,8000,1", 0), 0U) << probed("/CAM/0/sub");
    EXPECT_EQ(probed("/CAM/0/3").rfind("pcm_mulaw,8000,1", 0), 0U) << probed("/CAM/0/3");
}

TEST_F(Play, jpeg_is_played) {
    ASSERT_EQ(shell("ffmpeg -loglevel error -y -f lavfi -i testsrc2=size=320x240 -frames:v 1 "
                    "-pix_fmt yuvj420p -f mjpeg one.jpg")
                  .status,
              0);
    const std::string picture = file_content(path("one.jpg"));
    const Camera camera(camera_options("CAM", 0, {.codec = codec::mjpeg}), 40ms,
                        [&picture](std::uint64_t) {
                            return Camera_Frame{picture, zav_shm::frame_flag::key_frame};
                        });
    ASSERT_TRUE(start_server());
    EXPECT_EQ(probed("/CAM/0/main"), "mjpeg,320,240\n");
}

}  // namespace
