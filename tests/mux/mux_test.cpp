// SPDX-License-Identifier: Apache-2.0
//
// zav-shm-mux as its users run it, with pictures that are reordered; what players see of its files.
#include <sys/mount.h>

#include <csignal>
#include <filesystem>
#include <thread>

#include "mux/mux_fixture.h"
#include "support/threads.h"

namespace {

using namespace std::chrono_literals;

std::vector<std::int64_t> sorted_times(const std::vector<Encoded>& frames) {
    std::vector<std::int64_t> times;
    for (const Encoded& frame : frames) {
        times.push_back(frame.pts_ns);
    }
    std::sort(times.begin(), times.end());
    return times;
}

struct Form {
    const char* name;
    std::uint32_t codec;
    const char* container;
    std::int64_t step_ns;  // of the container's times
};

class Mux_Form : public Mux, public testing::WithParamInterface<Form> {};

TEST_P(Mux_Form, files_begin_at_key_frames_and_show_every_picture_at_its_time) {
    const auto stream = pictures(GetParam().codec, 70);
    Publishing camera({stream}, true);
    Tool_Process mux = start_mux({"--from", "oldest", "--format", GetParam().container, "--segment",
                                  "300ms", "--frames", "70", "--strict"});
    EXPECT_EQ(mux.status(), 0) << mux.errors();
    EXPECT_EQ(files().size(), 4U);
    const auto published = sorted_times(stream.frames);
    std::size_t at = 0;
    for (int file = 0; file < 4; ++file) {
        const std::string name = mux.read_line().value_or("");
        EXPECT_TRUE(name.ends_with(std::string(".") + GetParam().container));
        const auto times = times_of(name, "v");
        EXPECT_EQ(decode(name), times.size());
        ASSERT_LE(at + times.size(), published.size());
        for (std::size_t i = 0; i < times.size(); ++i) {
            const std::int64_t wanted = published[at + i] - published[at];
            EXPECT_LT(std::abs(times[i] - wanted), GetParam().step_ns) << name << " " << i;
        }
        at += times.size();
    }
    EXPECT_EQ(at, published.size());
}

INSTANTIATE_TEST_SUITE_P(Every, Mux_Form,
                         testing::Values(Form{"h264_mp4", zav_shm::codec::h264, "mp4", 400'000},
                                         Form{"h264_mkv", zav_shm::codec::h264, "mkv", 1'000'000},
                                         Form{"h265_mp4", zav_shm::codec::h265, "mp4", 400'000},
                                         Form{"h265_mkv", zav_shm::codec::h265, "mkv", 1'000'000}),
                         [](const auto& tested) { return std::string(tested.param.name); });

class Mux_Run : public Mux {};

struct Sound {
    const char* name;
    std::uint32_t codec;
    const char* container;
};

class Mux_Sound : public Mux, public testing::WithParamInterface<Sound> {};

// Each packet is in one file, and as far from the first picture as at the producer: to a
// millisecond in Matroska, and in MP4, whose tracks begin at once, to half a packet.
TEST_P(Mux_Sound, of_another_stream_goes_beside_the_pictures) {
    const auto video = pictures(zav_shm::codec::h264, 100);
    const auto audio = sounds(GetParam().codec);
    Publishing camera({video, audio}, true);
    Tool_Process mux =
        start_mux({"--audio", "CAM_LOOP/0/1", "--from", "oldest", "--format", GetParam().container,
                   "--segment", "300ms", "--frames", "80", "--strict", "--quiet"});
    EXPECT_EQ(mux.status(), 0) << mux.errors();
    const std::int64_t packet_ns = audio.frames.at(2).pts_ns - audio.frames.at(1).pts_ns;
    const std::int64_t off_max =
        std::string(GetParam().container) == "mkv" ? 2 * ms : packet_ns / 2 + ms;
    std::size_t picture = 0;
    std::size_t sound = 0;
    for (int file = 0; file < 4; ++file) {
        const auto name = mux.read_line().value_or("");
        EXPECT_EQ(decode(name), static_cast<std::size_t>(key_interval));
        const std::int64_t begin_ns = sorted_times(video.frames).at(picture);
        for (const std::int64_t time : times_of(name, "a")) {
            const std::int64_t wanted = audio.frames.at(sound++).pts_ns - begin_ns;
            EXPECT_LT(std::abs(time - wanted), off_max) << name << " " << sound;
        }
        picture += key_interval;
    }
    // 80 pictures are 1.6 s.
    const std::int64_t ends_ns = static_cast<std::int64_t>(sound) * packet_ns;
    EXPECT_LT(std::abs(ends_ns - 1600 * ms), 2 * packet_ns);
}

INSTANTIATE_TEST_SUITE_P(Every, Mux_Sound,
                         testing::Values(Sound{"aac_mkv", zav_shm::codec::aac, "mkv"},
                                         Sound{"aac_mp4", zav_shm::codec::aac, "mp4"},
                                         Sound{"opus_mkv", zav_shm::codec::opus, "mkv"},
                                         Sound{"opus_mp4", zav_shm::codec::opus, "mp4"},
                                         Sound{"alaw_mkv", zav_shm::codec::pcma, "mkv"}),
                         [](const auto& tested) { return std::string(tested.param.name); });

TEST_F(Mux_Run, sound_that_the_container_cannot_hold_leaves_the_pictures) {
    Publishing camera({pictures(zav_shm::codec::h264, 60), sounds(zav_shm::codec::pcma)}, false);
    Tool_Process mux = start_mux({"--audio", "CAM_LOOP/0/1", "--duration", "2"});
    EXPECT_EQ(mux.status(), 0) << mux.errors();
    EXPECT_TRUE(mux.says("--format mkv holds G.711, too"));
    ASSERT_EQ(files().size(), 1U);
    EXPECT_GT(decode(files().front()), 40U);
}

TEST_F(Mux_Run, sound_that_does_not_come_leaves_the_pictures) {
    Publishing camera({pictures(zav_shm::codec::h264, 60)}, false);
    Tool_Process mux = start_mux({"--audio", "CAM_LOOP/0/1", "--duration", "2"});
    EXPECT_EQ(mux.status(), 0) << mux.errors();
    EXPECT_TRUE(mux.says("has no sound: none came from tap of CAM_LOOP/0/1"));
    ASSERT_EQ(files().size(), 1U);
    EXPECT_GT(decode(files().front()), 40U);
}

TEST_F(Mux_Run, killed_it_leaves_a_file_that_plays_up_to_its_last_fragment) {
    Publishing camera({pictures(zav_shm::codec::h264, 60)}, false);
    for (const std::string container : {"mp4", "mkv"}) {
        Tool_Process mux = start_mux({"--pattern", container, "--format", container});
        EXPECT_TRUE(becomes_true([&] {
            std::error_code missing;
            return std::filesystem::file_size(folder() + "/" + container + ".part", missing) >
                       40'000 &&
                   !missing;
        }));
        std::this_thread::sleep_for(2s);
        mux.signal(SIGKILL);
        mux.status();
        const std::string count = shell(
            "ffprobe -v quiet -count_frames -select_streams v -show_entries "
            "stream=nb_read_frames -of csv=p=0 '" +
            folder() + "/" + container + ".part'");
        EXPECT_GT(std::atoi(count.c_str()), 60) << container;
    }
    leaves_cards = true;
}

TEST_F(Mux_Run, hangup_begins_a_file_and_a_signal_finishes_the_last_one) {
    Publishing camera({pictures(zav_shm::codec::h264, 60)}, false);
    Tool_Process mux = start_mux({});
    mux.says("connected");
    std::this_thread::sleep_for(1s);
    mux.signal(SIGHUP);
    const auto first = mux.read_line();
    std::this_thread::sleep_for(1s);
    mux.signal(SIGTERM);
    const auto second = mux.read_line();
    EXPECT_EQ(mux.status(), 0) << mux.errors();
    ASSERT_TRUE(first && second);
    const std::size_t pictures_there = decode(*first) + decode(*second);
    EXPECT_EQ(static_cast<long>(pictures_there), mux.figure("frames"));
    EXPECT_EQ(mux.figure("last") - mux.figure("first") + 1, mux.figure("frames"));
}

TEST_F(Mux_Run, event_begins_before_its_trigger) {
    Publishing camera({pictures(zav_shm::codec::h264, 60)}, false);
    Tool_Process mux = start_mux({"--trigger", "SIGUSR1", "--before", "1", "--after", "500ms"});
    mux.says("waiting for a trigger");
    std::this_thread::sleep_for(2s);
    mux.signal(SIGUSR1);
    const auto file = mux.read_line();
    mux.signal(SIGTERM);
    EXPECT_EQ(mux.status(), 0) << mux.errors();
    ASSERT_TRUE(file);
    EXPECT_NE(file->find("event-"), std::string::npos);
    // 1.5 s, and up to the key frames before and behind.
    const std::size_t found = decode(*file);
    EXPECT_GE(found, 75U);
    EXPECT_LE(found, 75U + 2 * key_interval + 5);
    EXPECT_EQ(found % key_interval, 0U);
}

TEST_F(Mux_Run, full_medium_ends_the_file_whole_and_the_next_one_works_once_there_is_room) {
    ASSERT_EQ(mount("tmpfs", folder().c_str(), "tmpfs", 0, "size=2m"), 0);
    Publishing camera({pictures(zav_shm::codec::h264, 60, "snow")}, false);
    Tool_Process mux =
        start_mux({"--trigger", "SIGUSR1", "--before", "1", "--after", "20", "--pattern", "e.mp4"});
    mux.says("waiting for a trigger");
    std::this_thread::sleep_for(1s);
    mux.signal(SIGUSR1);
    EXPECT_TRUE(mux.says("No space left on device; the event ends there"));
    EXPECT_EQ(mux.read_line(), path("files/e.mp4"));
    EXPECT_GT(decode(path("files/e.mp4")), 20U);
    std::filesystem::remove(path("files/e.mp4"));
    mux.signal(SIGUSR1);
    std::this_thread::sleep_for(1s);
    mux.signal(SIGTERM);
    EXPECT_EQ(mux.read_line(), path("files/e.mp4"));
    EXPECT_GT(decode(path("files/e.mp4")), 20U);
    EXPECT_EQ(mux.status(), input_output);
    EXPECT_EQ(umount(folder().c_str()), 0);
}

TEST_F(Mux_Run, producer_that_is_started_again_begins_a_file) {
    const auto stream = pictures(zav_shm::codec::h264, 60);
    std::optional<Publishing> camera;
    camera.emplace(std::vector{stream}, false);
    Tool_Process mux = start_mux({});
    mux.says("connected");
    std::this_thread::sleep_for(1s);
    camera.reset();
    camera.emplace(std::vector{stream}, false);
    const auto first = mux.read_line();
    std::this_thread::sleep_for(1s);
    mux.signal(SIGTERM);
    const auto second = mux.read_line();
    EXPECT_EQ(mux.status(), 0) << mux.errors();
    ASSERT_TRUE(first && second);
    EXPECT_GT(decode(*first), 20U);
    EXPECT_GT(decode(*second), 20U);
}

// What pipelines publish at their end, and what no decoder could do anything with.
TEST_F(Mux_Run, frames_without_a_picture_harm_nothing) {
    auto stream = pictures(zav_shm::codec::h264, 60);
    auto sound = sounds(zav_shm::codec::aac);
    for (Publishing::Stream* one : {&stream, &sound}) {
        one->frames[30].bytes.clear();
        one->frames[31].bytes.assign(1, std::byte{0});
        one->frames[32].bytes.assign(500, std::byte{0x5a});
    }
    Publishing camera({stream, sound}, false);
    for (const std::string container : {"mp4", "mkv"}) {
        Tool_Process mux = start_mux({"--audio", "CAM_LOOP/0/1", "--format", container,
                                      "--duration", "3", "--pattern", container});
        EXPECT_EQ(mux.status(), 0) << mux.errors();
        const std::string count = shell(
            "ffprobe -v quiet -count_packets -select_streams v -show_entries "
            "stream=nb_read_packets -of csv=p=0 '" +
            path("files/") + container + "'");
        EXPECT_GT(std::atoi(count.c_str()), 100) << container;
    }
}

TEST_F(Mux_Run, what_cannot_be_is_refused) {
    const auto refusal = [this](const std::vector<std::string>& words) {
        Tool_Process mux = start(words);
        EXPECT_EQ(mux.status(), usage);
        return mux.errors();
    };
    EXPECT_NE(refusal({"--tap", "--pair", "CAM_LOOP"}).find("--directory is required"),
              std::string::npos);
    EXPECT_NE(refusal({"--tap", "--pair", "CAM_LOOP", "--directory", folder(), "--format", "avi"})
                  .find("'avi' is neither mp4 nor mkv"),
              std::string::npos);
    EXPECT_NE(refusal({"--tap", "--pair", "CAM_LOOP", "--directory", folder(), "--audio", "A/b"})
                  .find("'A/b' is no stream"),
              std::string::npos);
    Publishing camera(
        {{0, {zav_shm::codec::mjpeg, 16, 16, 25, 1, 0}, sounds(zav_shm::codec::aac).frames}},
        false);
    Tool_Process mux = start_mux({"--duration", "5"});
    EXPECT_EQ(mux.status(), input_output);
    EXPECT_TRUE(mux.says("pictures have to be H.264 or H.265"));
    EXPECT_TRUE(files().empty());
}

}  // namespace
