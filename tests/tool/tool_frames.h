// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <csignal>
#include <span>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tool/split_streams.h"
#include "tool/tool_process.h"

/// Fixture of tests with frames through a real center, from `publish` to `record`.
class Tool_Frames : public Tool {
protected:
    void SetUp() override {
        Tool::SetUp();
        ASSERT_TRUE(start_center(tool_configuration));
    }

    /// A recorder that has joined its stream.
    Tool_Process start_recorder(const std::vector<std::string>& more,
                                const std::string& shell = "exec \"$@\"") {
        std::vector<std::string> words{"record", "--name", "RECODER", "--pair", "CAM_LOOP"};
        words.insert(words.end(), more.begin(), more.end());
        Tool_Process recorder = start(words, shell);
        recorder.says("fed by CAM_LOOP/0/0: ");
        return recorder;
    }

    Tool_Process start_publisher(const std::vector<std::string>& more,
                                 const std::string& shell = "exec \"$@\"") {
        std::vector<std::string> words{"publish", "--name", "CAM_LOOP"};
        words.insert(words.end(), more.begin(), more.end());
        return start(words, shell);
    }

    /// Ends it by a signal, in order.
    static void end(Tool_Process& process) {
        process.signal(SIGTERM);
        EXPECT_EQ(process.status(), 0) << process.errors();
    }

    /// What an index says of a stream: those of its frames that were written, in their order.
    static std::string named_frames(const std::vector<Kept_Unit>& units, const std::string& index) {
        std::string frames;
        for (const Index_Line& line : index_lines(index)) {
            const Kept_Unit& unit = units.at((line.sequence - 1) % units.size());
            for (const std::byte byte : unit.bytes) {
                frames += static_cast<char>(byte);
            }
        }
        return frames;
    }

    /// A line of an index, the part that tests look at; of a publisher's the last three are 0.
    struct Index_Line {
        unsigned long sequence = 0;
        unsigned long bytes = 0;
        int entry = 0;
        unsigned long offset = 0;
        long long pts_ns = 0;
        long long utc_ns = 0;
    };
    static std::vector<Index_Line> index_lines(const std::string& file) {
        std::vector<Index_Line> lines;
        std::istringstream index(content(file));
        for (std::string text; std::getline(index, text);) {
            std::istringstream columns(text);
            int stream = 0;
            Index_Line line;
            if (columns >> stream >> line.sequence >> line.bytes >> line.entry) {
                columns >> line.offset >> line.pts_ns >> line.utc_ns;
                lines.push_back(line);
            }
        }
        return lines;
    }
};

inline Bytes bytes_of(const std::string& text) {
    const auto bytes = std::as_bytes(std::span(text));
    return {bytes.begin(), bytes.end()};
}

inline std::string text_of(const Bytes& bytes) {
    std::string text;
    for (const std::byte byte : bytes) {
        text += static_cast<char>(byte);
    }
    return text;
}
