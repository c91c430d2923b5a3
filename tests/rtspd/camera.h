// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "frame/frame_publisher.h"

/// A frame of the tests' cameras.
struct Camera_Frame {
    std::string bytes;
    std::uint16_t flags = 0;
};

/// The NAL units of an access unit with start codes.
std::vector<std::string> nal_units_of(const std::string& bytes);

/// H.264 as far as RTP looks into it: parameter sets of a real stream before each key frame, and
/// slices of bytes that tell the frame's number.
Camera_Frame numbered_frame(std::uint64_t number, std::uint64_t key_interval, std::size_t size);

/// The number of such a frame; -1 when what came is not, byte for byte, that frame.
std::int64_t number_of(const std::vector<std::string>& nal_units, std::uint64_t key_interval,
                       std::size_t size);

/// The access units of a stream of the tests, or frames of its audio.
std::vector<Camera_Frame> frames_of(const std::string& file);

/// A producer that publishes frames at their times until it is stopped.
class Camera {
public:
    using Make = std::function<Camera_Frame(std::uint64_t number)>;

    Camera(const ZAV_SHM_Frame_Publisher::Options& options, std::chrono::microseconds interval,
           Make make);

    /// Leaves as a publisher does.
    ~Camera();
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

    std::uint64_t published() const { return published_; }

    /// When the frame was handed to publish(), CLOCK_MONOTONIC.
    std::int64_t published_ns(std::uint64_t number) const;

private:
    void run(std::chrono::microseconds interval, const Make& make);

    ZAV_SHM_Frame_Publisher publisher_;
    std::atomic<bool> stopping_{false};
    std::atomic<std::uint64_t> published_{0};
    mutable std::mutex mutex_;
    std::vector<std::int64_t> times_;
    std::thread thread_;
};

/// A publisher's options without a center.
ZAV_SHM_Frame_Publisher::Options camera_options(const std::string& name, int stream,
                                                const zav_shm::Frame_Format& format,
                                                std::size_t history_bytes = 2'000'000);
