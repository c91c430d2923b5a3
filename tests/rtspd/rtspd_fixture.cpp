// SPDX-License-Identifier: Apache-2.0
#include "rtspd/rtspd_fixture.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace {

const std::string program = ZAV_TEST_RTSPD;

// With everything that the shell and its commands say.
std::vector<std::string> in_shell(const std::string& line) { return {"/bin/sh", "-c", line}; }

std::string quoted(const std::vector<std::string>& words) {
    std::string line;
    for (const std::string& word : words) {
        line += " '" + word + "'";
    }
    return line;
}

}  // namespace

void Rtspd::SetUp() {
    Kernel_Objects::SetUp();
    make_folder("shm");
    char name[] = "/tmp/zav_rtspd_XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    folder_ = name;
    // GStreamer looks at its plugins once, and not in the home of whoever runs the tests.
    setenv("GST_REGISTRY", ZAV_TEST_REGISTRY, 1);
    setenv("GST_REGISTRY_FORK", "no", 1);
}

void Rtspd::TearDown() {
    if (server) {
        server->signal(SIGTERM);
        EXPECT_TRUE(server->wait(std::chrono::seconds(5)));
        server.reset();
    }
    if (testing::Test::HasFailure()) {
        std::printf("%s\n", errors().c_str());
    }
    remove_histories({".reader"});
    Kernel_Objects::TearDown();
    std::filesystem::remove_all(folder_);
}

bool Rtspd::start_server(const std::vector<std::string>& arguments, const std::string& line) {
    std::vector<std::string> words{program, "--port", std::to_string(port)};
    words.insert(words.end(), arguments.begin(), arguments.end());
    server.reset();
    server.emplace(
        in_shell("exec 2>'" + path("errors") + "'; set --" + quoted(words) + "; " + line));
    const auto ready = server->read_line();
    const std::size_t colon = ready ? ready->rfind(':') : std::string::npos;
    if (colon == std::string::npos) {
        ADD_FAILURE() << errors();
        return false;
    }
    port = std::atoi(ready->c_str() + colon + 1);
    return port > 0;
}

int Rtspd::run_program(const std::vector<std::string>& arguments) {
    std::vector<std::string> words{program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    Child_Process process(
        in_shell("exec" + quoted(words) + " >/dev/null 2>'" + path("errors") + "'"));
    return process.wait(std::chrono::seconds(20)).value_or(-1);
}

Rtspd::Ended Rtspd::shell(const std::string& line) {
    Child_Process process(in_shell("exec 2>&1; cd '" + folder_ + "'; URL=" + scheme +
                                   "://127.0.0.1:" + std::to_string(port) + "; " + line));
    Ended ended;
    ended.output = process.read_rest();
    ended.status = process.wait().value_or(-1);
    return ended;
}

std::string Rtspd::errors() const {
    std::ifstream in(path("errors"));
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::unique_ptr<Camera> Rtspd::numbered_camera(const std::string& name, std::size_t size) {
    auto camera = std::make_unique<Camera>(
        camera_options(name, 0, {.codec = zav_shm::codec::h264}), frame_interval,
        [size](std::uint64_t number) { return numbered_frame(number, key_interval, size); });
    EXPECT_TRUE(becomes_true([&] { return camera->published() > 0; }));
    return camera;
}

std::unique_ptr<Camera> Rtspd::file_camera(const std::string& file, std::uint32_t codec,
                                           int stream) {
    auto camera =
        std::make_unique<Camera>(camera_options("CAM", stream, {.codec = codec}), frame_interval,
                                 [frames = frames_of(file)](std::uint64_t number) {
                                     return frames.at(number % frames.size());
                                 });
    EXPECT_TRUE(becomes_true([&] { return camera->published() > 0; }));
    return camera;
}

std::int64_t Rtspd::expect_units(Rtsp_Client& client, int count, std::size_t size) {
    std::int64_t last = -1;
    for (int i = 0; i < count; ++i) {
        const auto unit = client.next_unit();
        if (!unit) {
            ADD_FAILURE() << "no unit " << i;
            return -1;
        }
        const std::int64_t number = number_of(unit->nal_units, key_interval, size);
        if (number < 0 || unit->follows_gap || (last >= 0 && number != last + 1)) {
            ADD_FAILURE() << "unit " << i << " is frame " << number << " behind " << last;
            return -1;
        }
        last = number;
    }
    return last;
}

void Rtspd::write(const std::string& name, const std::string& text) const {
    std::ofstream(path(name), std::ios::binary) << text;
}
