// SPDX-License-Identifier: Apache-2.0
#include "rtspd/hostile_cameras.h"

#include <fstream>
#include <iterator>
#include <random>

namespace {

namespace codec = zav_shm::codec;

constexpr std::chrono::milliseconds interval{4};
constexpr std::size_t bytes_max = 3000;
constexpr unsigned changes_max = 4;

std::string noise(std::minstd_rand& random) {
    std::string bytes(random() % bytes_max, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(random() % 4 == 0 ? random() % 3 : random());
    }
    return random() % 2 == 0 ? std::string("\0\0\1", 3) + bytes : bytes;
}

std::string changed(std::string bytes, std::minstd_rand& random) {
    for (unsigned i = random() % changes_max; i > 0 && !bytes.empty(); --i) {
        bytes[random() % bytes.size()] = static_cast<char>(random());
    }
    if (random() % 8 == 0) {
        bytes.resize(random() % (bytes.size() + 1));
    }
    return bytes;
}

}  // namespace

Hostile_Cameras::Hostile_Cameras(const std::string& jpeg) {
    std::ifstream in(jpeg, std::ios::binary);
    const std::string picture{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    for (const std::uint32_t kind : {codec::h264, codec::h265, codec::mjpeg, codec::aac,
                                     codec::opus, codec::pcma, codec::pcmu, codec::raw}) {
        add(kind, {});
    }
    add(codec::h264, frames_of("slices_aud.h264"));
    add(codec::h265, frames_of("slices_aud.h265"));
    add(codec::aac, frames_of("tone_stereo.aac"));
    if (!picture.empty()) {
        add(codec::mjpeg, {{picture, zav_shm::frame_flag::key_frame}});
    }
}

void Hostile_Cameras::add(std::uint32_t kind, std::vector<Camera_Frame> samples) {
    const zav_shm::Frame_Format format{.codec = kind, .width = 64, .height = 64};
    const int stream = static_cast<int>(cameras_.size());
    cameras_.push_back(std::make_unique<Camera>(
        camera_options("HOSTILE", stream, format), interval,
        [samples = std::move(samples), random = std::minstd_rand(static_cast<unsigned>(
                                           stream + 1))](std::uint64_t number) mutable {
            if (!samples.empty()) {
                const Camera_Frame& sample = samples.at(number % samples.size());
                return Camera_Frame{changed(sample.bytes, random), sample.flags};
            }
            const auto flags = static_cast<std::uint16_t>(number % 5 == 0 ? 1 : random() % 32);
            return Camera_Frame{noise(random), flags};
        }));
}

std::vector<std::string> Hostile_Cameras::paths() const {
    std::vector<std::string> found{"/HOSTILE/0/main", "/HOSTILE/0/sub", "/HOSTILE/0/audio"};
    for (std::size_t stream = found.size(); stream < cameras_.size(); ++stream) {
        found.push_back("/HOSTILE/0/" + std::to_string(stream));
    }
    return found;
}
