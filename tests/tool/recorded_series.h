// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "tool/tool_frames.h"

/// Fixture of tests with recordings that are series of files, of real video: 15 s of H.264 with a
/// key frame every 30 pictures, again and again.
class Recorded_Series : public Tool_Frames {
protected:
    using Words = std::vector<std::string>;
    using Lines = std::vector<Index_Line>;

    void SetUp() override {
        Tool_Frames::SetUp();
        units_ = split(zav_shm::media::Video_Codec::h264, bytes_of(content(sample("sub.h264"))));
        ASSERT_TRUE(std::filesystem::create_directory(folder()));
    }

    std::string folder() const { return path("files"); }

    Tool_Process start_camera(const Words& more) {
        Words words{sample("sub.h264"), "--loop", "--quiet"};
        words.insert(words.end(), more.begin(), more.end());
        Tool_Process camera = start_publisher(words);
        camera.says("publishing CAM_LOOP/0/0");
        return camera;
    }

    /// 60 pictures a second, a key frame every half of a second, and 100 s of history.
    Tool_Process start_camera() { return start_camera({"--fps", "60", "--history", "10000000"}); }

    Tool_Process start_series(const Words& more, const std::string& shell = "exec \"$@\"") {
        Words words{"--directory", folder(), "--index-each"};
        words.insert(words.end(), more.begin(), more.end());
        return start_recorder(words, shell);
    }

    /// What lies in the folder, sorted, without indexes.
    std::vector<std::string> files() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(folder())) {
            if (entry.path().extension() != ".index") {
                names.push_back(entry.path());
            }
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    /// A finished file begins with a key frame, holds what was published, each picture once and
    /// none left out, and its index tells where.
    Lines expect_whole(const std::string& file) const {
        const Lines lines = index_lines(file + ".index");
        EXPECT_FALSE(lines.empty()) << file;
        if (lines.empty()) {
            return lines;
        }
        EXPECT_EQ(lines.front().entry, 1) << file;
        EXPECT_TRUE(content(file) == named_frames(units_, file + ".index")) << file;
        unsigned long offset = 0;
        for (std::size_t i = 0; i < lines.size(); ++i) {
            EXPECT_EQ(lines[i].offset, offset);
            offset += lines[i].bytes;
            if (i > 0) {
                EXPECT_EQ(lines[i].sequence, lines[i - 1].sequence + 1) << file;
                EXPECT_GT(lines[i].pts_ns, lines[i - 1].pts_ns);
            }
        }
        return lines;
    }

    /// The same of a file without an index, as a decoder sees it.
    ///
    /// @return how many pictures there are
    std::size_t expect_pictures(const std::string& file) const {
        const auto found = split(zav_shm::media::Video_Codec::h264, bytes_of(content(file)));
        const auto first = std::find_if(units_.begin(), units_.end(), [&](const Kept_Unit& unit) {
            return !found.empty() && unit.bytes == found.front().bytes;
        });
        EXPECT_TRUE(first != units_.end() && first->is_key) << file;
        auto at = static_cast<std::size_t>(first - units_.begin());
        for (const Kept_Unit& unit : found) {
            EXPECT_TRUE(unit.bytes == units_.at(at++ % units_.size()).bytes) << file;
        }
        return found.size();
    }

    static long long utc_ns() {
        using namespace std::chrono;
        return duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count();
    }

    std::vector<Kept_Unit> units_;
};
