// SPDX-License-Identifier: Apache-2.0
#include "frames_fixture.h"

#include <algorithm>

using namespace std::chrono_literals;

std::vector<std::byte> payload(std::size_t length, int seed) {
    std::vector<std::byte> bytes(length);
    std::generate(bytes.begin(), bytes.end(),
                  [n = seed]() mutable { return static_cast<std::byte>(n += 7); });
    return bytes;
}

bool equal(std::span<const std::byte> left, std::span<const std::byte> right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end());
}

std::vector<std::byte> Frames::next(ZAV_SHM_Frame_Subscriber& from) {
    zav_shm::Received_Frame frame;
    if (from.receive(frame, 5s) != zav_shm::Receive_Status::frame) {
        return {};
    }
    return {frame.payload().begin(), frame.payload().end()};
}

void Frames::publish_numbers(ZAV_SHM_Frame_Publisher& to, int first, int last, int key_interval) {
    for (int number = first; number <= last; ++number) {
        const bool is_key = key_interval != 0 && (number - 1) % key_interval == 0;
        const std::vector<std::byte> one{static_cast<std::byte>(number)};
        const auto result =
            to.publish(one, {.flags = is_key ? zav_shm::frame_flag::key_frame : std::uint16_t{0}});
        EXPECT_TRUE(result.published()) << result.reason;
    }
}

std::vector<int> Frames::numbers_in(ZAV_SHM_Frame_Subscriber& from) {
    std::vector<int> numbers;
    zav_shm::Received_Frame frame;
    while (from.receive(frame, 0ms) == zav_shm::Receive_Status::frame) {
        numbers.push_back(std::to_integer<int>(frame.payload().front()));
    }
    return numbers;
}
