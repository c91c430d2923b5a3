// SPDX-License-Identifier: Apache-2.0
#include "mux/mux_fixture.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "support/child_process.h"

namespace {

// From one frame to the next one; only those that are not reordered may leave it unsaid.
std::int64_t interval_ns(const std::vector<Encoded>& frames) {
    const std::int64_t said_ns = frames.front().duration_ns;
    return said_ns != 0 ? said_ns : frames.at(2).pts_ns - frames.at(1).pts_ns;
}

}  // namespace

using std::chrono::nanoseconds;
using std::chrono::steady_clock;

Publishing::Publishing(std::vector<Stream> streams, bool once) : streams_(std::move(streams)) {
    for (const Stream& stream : streams_) {
        publishers_.push_back(std::make_unique<ZAV_SHM_Frame_Publisher>(
            ZAV_SHM_Frame_Publisher::Options{.name = "CAM_LOOP",
                                             .stream = stream.number,
                                             .format = stream.format,
                                             .history_bytes = 8'000'000}));
        static_cast<void>(publishers_.back()->open());
    }
    thread_ = std::thread([this, once] { run(once); });
}

Publishing::~Publishing() {
    stopping_ = true;
    wait();
}

void Publishing::wait() {
    if (thread_.joinable()) {
        thread_.join();
    }
}

// A frame is published when the one that it is decoded behind has been, and its own time, were it
// not reordered, has come.
void Publishing::run(bool once) {
    struct Place {
        std::size_t frame = 0;
        std::int64_t base_ns = 0;
    };
    std::vector<Place> places(streams_.size());
    const auto begin = steady_clock::now();
    const auto due_ns = [&](std::size_t i) {
        return places[i].base_ns +
               static_cast<std::int64_t>(places[i].frame) * interval_ns(streams_[i].frames);
    };
    while (!stopping_) {
        std::optional<std::size_t> next;
        for (std::size_t i = 0; i < places.size(); ++i) {
            if (places[i].frame == streams_[i].frames.size()) {
                if (once) {
                    continue;
                }
                places[i] = {0, due_ns(i)};
            }
            next = !next || due_ns(i) < due_ns(*next) ? i : next;
        }
        if (!next) {
            return;
        }
        std::this_thread::sleep_until(begin + nanoseconds(due_ns(*next)));
        Place& place = places[*next];
        const Encoded& frame = streams_[*next].frames[place.frame++];
        publishers_[*next]->publish(
            frame.bytes, {.flags = frame.is_key ? zav_shm::frame_flag::key_frame : std::uint16_t{0},
                          .pts = nanoseconds(place.base_ns + frame.pts_ns),
                          .duration = std::chrono::duration_cast<std::chrono::microseconds>(
                              nanoseconds(frame.duration_ns))});
    }
}

void Mux::SetUpTestSuite() {
    setenv("GST_REGISTRY", ZAV_TEST_REGISTRY, 1);
    setenv("GST_REGISTRY_FORK", "no", 1);
    start_encoders();
}

void Mux::SetUp() {
    Tool::SetUp();
    make_folder("shm");
    ASSERT_TRUE(std::filesystem::create_directory(folder()));
}

Publishing::Stream Mux::pictures(std::uint32_t codec, int count, const std::string& pattern) {
    const std::string raw = "videotestsrc pattern=" + pattern +
                            " num-buffers=" + std::to_string(count) +
                            " ! video/x-raw,format=I420,width=160,height=120,framerate=50/1 ! ";
    const std::string h264 =
        "x264enc key-int-max=20 bframes=2 b-adapt=false speed-preset=ultrafast ! h264parse "
        "config-interval=-1 ! video/x-h264,stream-format=byte-stream,alignment=au";
    const std::string h265 =
        "x265enc key-int-max=20 speed-preset=ultrafast option-string=bframes=2:open-gop=0 ! "
        "h265parse config-interval=-1 ! video/x-h265,stream-format=byte-stream,alignment=au";
    return {0,
            {codec, 160, 120, 50, 1, 0},
            encoded(raw + (codec == zav_shm::codec::h264 ? h264 : h265))};
}

Publishing::Stream Mux::sounds(std::uint32_t codec) {
    if (codec == zav_shm::codec::pcma) {
        return {1,
                {codec, 0, 0, 8000, 1, 1},
                encoded("audiotestsrc num-buffers=100 samplesperbuffer=160 ! "
                        "audio/x-raw,rate=8000,channels=1 ! alawenc")};
    }
    const std::string source =
        "audiotestsrc num-buffers=94 samplesperbuffer=1024 ! audio/x-raw,rate=48000,channels=1 ! ";
    return {1,
            {codec, 0, 0, 48000, 1, 1},
            encoded(source + (codec == zav_shm::codec::opus
                                  ? "opusenc"
                                  : "avenc_aac ! aacparse ! audio/mpeg,stream-format=adts"))};
}

Tool_Process Mux::start_mux(const std::vector<std::string>& more) {
    std::vector<std::string> words{"--tap", "--pair", "CAM_LOOP", "--directory", folder()};
    words.insert(words.end(), more.begin(), more.end());
    return start(words);
}

std::vector<std::string> Mux::files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder())) {
        if (entry.path().extension() != ".part") {
            names.push_back(entry.path());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string Mux::shell(const std::string& line) {
    Child_Process process({"/bin/sh", "-c", "exec 2>&1; " + line});
    std::string output = process.read_rest();
    EXPECT_TRUE(process.wait());
    return output;
}

std::vector<std::int64_t> Mux::times_of(const std::string& file, const std::string& track) {
    std::istringstream lines(shell("ffprobe -v error -select_streams " + track +
                                   " -show_entries packet=pts_time -of csv=p=0 '" + file + "'"));
    std::vector<std::int64_t> times;
    for (std::string line; std::getline(lines, line);) {
        times.push_back(static_cast<std::int64_t>(std::strtod(line.c_str(), nullptr) * 1e9));
    }
    std::sort(times.begin(), times.end());
    return times;
}

std::size_t Mux::decode(const std::string& file) {
    EXPECT_EQ(shell("ffmpeg -v error -i '" + file + "' -f null -"), "") << file;
    const std::string count = shell(
        "ffprobe -v error -count_frames -select_streams v -show_entries stream=nb_read_frames -of "
        "csv=p=0 '" +
        file + "'");
    return static_cast<std::size_t>(std::atoi(count.c_str()));
}
