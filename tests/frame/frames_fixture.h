// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "../center/center_fixture.h"
#include "frame/frame_publisher.h"
#include "frame/frame_subscriber.h"
#include "support/histories.h"

/// Bytes that differ from one seed to the next.
std::vector<std::byte> payload(std::size_t length, int seed = 1);

bool equal(std::span<const std::byte> left, std::span<const std::byte> right);

/// Publishers and subscribers of this process at a center of this process.
class Frames : public Center {
protected:
    void SetUp() override {
        Center::SetUp();
        start();
    }
    void TearDown() override {
        stop();
        remove_histories();
        Center::TearDown();
    }

    // The payload of the next frame, or nothing.
    static std::vector<std::byte> next(ZAV_SHM_Frame_Subscriber& from);

    // Publishes so many frames of one byte, 1 and so on; every `key_interval`th, from the first on,
    // is a key frame.
    static void publish_numbers(ZAV_SHM_Frame_Publisher& to, int first, int last,
                                int key_interval = 0);

    // The numbers of the frames that are there to be received now.
    static std::vector<int> numbers_in(ZAV_SHM_Frame_Subscriber& from);

    static constexpr const char* rings = "/dev/shm/shm/rings";
};

/// The same without a center.
class Frames_Without_Center : public Control_Queues {
protected:
    void TearDown() override {
        remove_histories();
        Control_Queues::TearDown();
    }
};
