// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "frame/frame_publisher.h"
#include "mux/encoded.h"
#include "tool/tool_process.h"

/// Publishes what encoders made, each frame when its time has come, in the order of decoding; again
/// and again, or once.
class Publishing {
public:
    struct Stream {
        int number = 0;
        zav_shm::Frame_Format format;
        std::vector<Encoded> frames;
    };

    Publishing(std::vector<Stream> streams, bool once);
    ~Publishing();
    Publishing(const Publishing&) = delete;
    Publishing& operator=(const Publishing&) = delete;

    /// Everything has been published, once.
    void wait();

private:
    void run(bool once);

    std::vector<Stream> streams_;
    std::vector<std::unique_ptr<ZAV_SHM_Frame_Publisher>> publishers_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

/// Fixture of tests with zav-shm-mux as a process of its own.
class Mux : public Tool {
protected:
    static constexpr std::int64_t ms = 1'000'000;
    static constexpr int key_interval = 20;

    static void SetUpTestSuite();
    void SetUp() override;

    /// 50 pictures a second, reordered, with a key frame each 20.
    static Publishing::Stream pictures(std::uint32_t codec, int count,
                                       const std::string& pattern = "ball");

    /// Two seconds of AAC, whose packets have 21.3 ms, Opus or A-law with 20 ms.
    static Publishing::Stream sounds(std::uint32_t codec);

    Tool_Process start_mux(const std::vector<std::string>& more);

    /// What is finished in the folder, sorted.
    std::vector<std::string> files() const;

    /// Presentation times of a file's packets in ns, sorted, as ffprobe sees them.
    std::vector<std::int64_t> times_of(const std::string& file, const std::string& track);

    /// Has a player decode everything.
    ///
    /// @return how many pictures there are
    std::size_t decode(const std::string& file);

    std::string shell(const std::string& line);

    std::string folder() const { return path("files"); }
};
