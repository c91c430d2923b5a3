// SPDX-License-Identifier: Apache-2.0
#include "rtspd/camera.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <span>

#include "apps/audio/adts_splitter.h"
#include "apps/media/access_unit_splitter.h"
#include "apps/media/nal_scan.h"
#include "ipc/monotonic_clock.h"

using zav_shm::media::Access_Unit;
using zav_shm::media::Access_Unit_Splitter;
using zav_shm::media::Video_Codec;

namespace {

constexpr std::size_t unit_bytes_max = 1U << 20U;

std::span<const std::byte> as_span(const std::string& text) {
    return std::as_bytes(std::span(text.data(), text.size()));
}

std::string as_text(std::span<const std::byte> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

std::string content(const std::string& file) {
    std::ifstream in(std::string(ZAV_TEST_STREAMS) + "/" + file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class Adts_Frames : public zav_shm::audio::Audio_Receiver {
public:
    void take(const zav_shm::audio::Audio_Frame& frame) override {
        frames.push_back({as_text(frame.bytes), zav_shm::frame_flag::key_frame});
    }
    void left_out(std::uint64_t /*bytes*/, const std::string& /*what*/) override {}
    void remark(const std::string& /*text*/) override {}

    std::vector<Camera_Frame> frames;
};

// With their start codes, of a real stream.
const std::string& parameter_sets() {
    static const std::string sets = [] {
        std::string found;
        for (const std::string& unit : nal_units_of(frames_of("plain.h264").front().bytes)) {
            const auto type = static_cast<unsigned char>(unit.front()) & 31U;
            if (type == 7 || type == 8) {
                found += std::string("\0\0\0\1", 4) + unit;
            }
        }
        return found;
    }();
    return sets;
}

}  // namespace

std::vector<std::string> nal_units_of(const std::string& bytes) {
    std::vector<std::string> units;
    for (zav_shm::media::Nal_Scan scan(as_span(bytes)); scan.next();) {
        std::string unit = as_text(scan.nal_unit());
        unit.erase(unit.find_last_not_of('\0') + 1);
        units.push_back(std::move(unit));
    }
    return units;
}

Camera_Frame numbered_frame(std::uint64_t number, std::uint64_t key_interval, std::size_t size) {
    const bool is_key = number % key_interval == 0;
    std::string slice = std::string("\0\0\0\1", 4) + (is_key ? '\x65' : '\x41') + '\x88';
    const std::string digits = std::to_string(number) + ".";
    std::uint64_t state = number * 2 + 1;
    slice += digits;
    while (slice.size() < size) {
        state = state * 6364136223846793005U + 1442695040888963407U;
        slice += static_cast<char>(1 + (state >> 33U) % 255);
    }
    return {(is_key ? parameter_sets() : std::string()) + slice,
            is_key ? zav_shm::frame_flag::key_frame : std::uint16_t{0}};
}

std::int64_t number_of(const std::vector<std::string>& nal_units, std::uint64_t key_interval,
                       std::size_t size) {
    if (nal_units.empty() || nal_units.back().size() < 3) {
        return -1;
    }
    const std::uint64_t number = std::strtoull(nal_units.back().c_str() + 2, nullptr, 10);
    return nal_units_of(numbered_frame(number, key_interval, size).bytes) == nal_units
               ? static_cast<std::int64_t>(number)
               : -1;
}

std::vector<Camera_Frame> frames_of(const std::string& file) {
    const std::string stream = content(file);
    if (file.ends_with(".aac")) {
        Adts_Frames found;
        zav_shm::audio::Adts_Splitter splitter(found);
        splitter.feed(as_span(stream));
        splitter.finish();
        return found.frames;
    }
    std::vector<Camera_Frame> found;
    Access_Unit_Splitter splitter(
        file.ends_with(".h265") ? Video_Codec::h265 : Video_Codec::h264, unit_bytes_max,
        [&found](const Access_Unit& unit) {
            found.push_back({as_text(unit.bytes),
                             unit.is_key ? zav_shm::frame_flag::key_frame : std::uint16_t{0}});
        });
    splitter.feed(as_span(stream));
    splitter.finish();
    return found;
}

Camera::Camera(const ZAV_SHM_Frame_Publisher::Options& options, std::chrono::microseconds interval,
               Make make)
    : publisher_(options),
      thread_([this, interval, make = std::move(make)] { run(interval, make); }) {}

Camera::~Camera() {
    stopping_ = true;
    thread_.join();
}

void Camera::run(std::chrono::microseconds interval, const Make& make) {
    static_cast<void>(publisher_.open());
    auto due = std::chrono::steady_clock::now();
    const std::int64_t begun_ns = zav_shm::monotonic_ns();
    for (std::uint64_t number = 0; !stopping_; ++number) {
        const Camera_Frame frame = make(number);
        {
            const std::lock_guard lock(mutex_);
            times_.push_back(zav_shm::monotonic_ns());
        }
        // Times that begin anew with each camera, as those of encoders do.
        publisher_.publish(as_span(frame.bytes),
                           {.flags = frame.flags,
                            .pts = std::chrono::nanoseconds(zav_shm::monotonic_ns() - begun_ns)});
        ++published_;
        due += interval;
        std::this_thread::sleep_until(due);
    }
}

std::int64_t Camera::published_ns(std::uint64_t number) const {
    const std::lock_guard lock(mutex_);
    return times_.at(static_cast<std::size_t>(number));
}

ZAV_SHM_Frame_Publisher::Options camera_options(const std::string& name, int stream,
                                                const zav_shm::Frame_Format& format,
                                                std::size_t history_bytes) {
    ZAV_SHM_Frame_Publisher::Options options;
    options.name = name;
    options.stream = stream;
    options.format = format;
    options.center_wait = std::chrono::milliseconds(0);
    options.history_bytes = history_bytes;
    return options;
}
