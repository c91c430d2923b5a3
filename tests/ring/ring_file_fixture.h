// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "ring/pattern.h"
#include "ring/ring_follower.h"
#include "ring/ring_writer.h"
#include "support/kernel_objects.h"

using Look = zav_shm::Ring_Reader::Look;
using Reading = zav_shm::Ring_Memory::Reading;

constexpr std::int64_t ms = 1'000'000;

constexpr zav_shm::Ring_Size small_ring{100'000, 4096, 256};

/// A folder for rings, and one ring's name in it. At the end the folder holds nothing but that ring
/// and its lock.
class Ring_File : public Kernel_Objects {
protected:
    const std::string folder_ = "/dev/shm/rings";
    const std::string path_ = folder_ + "/CAM_LOOP_0_0";

    void SetUp() override {
        Kernel_Objects::SetUp();
        make_folder("rings");
    }
    void TearDown() override {
        for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
            EXPECT_TRUE(entry.path() == path_ || entry.path() == path_ + ".lock") << entry.path();
            std::filesystem::remove(entry.path());
        }
        Kernel_Objects::TearDown();
    }

    std::unique_ptr<zav_shm::Ring_Writer> open_writer(const zav_shm::Ring_Size& size = small_ring) {
        return zav_shm::Ring_Writer::open(path_, size, problem_);
    }

    static void write(zav_shm::Ring_Writer& writer, std::size_t length, std::uint32_t flags = 0) {
        fill_with_pattern(writer.reserve(length), writer.last() + 1);
        writer.commit(length, {.flags = flags});
    }

    // What a follower reads up to now, from the oldest record on: how many, and all right.
    static std::uint64_t read_all(zav_shm::Ring_Follower& follower) {
        std::uint64_t count = 0;
        zav_shm::Ring_Record record;
        follower.reader()->move_to(follower.reader()->oldest());
        for (; follower.reader()->look(record) == Look::record; follower.reader()->advance()) {
            std::vector<std::byte> bytes(record.entry.length);
            EXPECT_TRUE(follower.reader()->copy(record, 0, bytes));
            EXPECT_TRUE(holds_pattern(bytes, record.number));
            ++count;
        }
        return count;
    }

    void put_file(const std::string& content) const { std::ofstream(path_) << content; }

    zav_shm::Ring_Problem problem_;
};
