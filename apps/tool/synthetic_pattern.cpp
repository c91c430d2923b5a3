// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/synthetic_pattern.h"

namespace zav_shm::tool {

namespace {

// A counter through a mixing function (splitmix64): eight bytes from each step.
class Pattern {
public:
    explicit Pattern(std::uint64_t sequence) : state_(sequence * 0x9E3779B97F4A7C15U) {}

    std::byte next() {
        if (left_ == 0) {
            state_ += 0x9E3779B97F4A7C15U;
            word_ = state_;
            word_ = (word_ ^ word_ >> 30) * 0xBF58476D1CE4E5B9U;
            word_ = (word_ ^ word_ >> 27) * 0x94D049BB133111EBU;
            word_ ^= word_ >> 31;
            left_ = 8;
        }
        const auto byte = static_cast<std::byte>(word_ & 0xFFU);
        word_ >>= 8;
        --left_;
        return byte;
    }

private:
    std::uint64_t state_;
    std::uint64_t word_ = 0;
    int left_ = 0;
};

}  // namespace

void fill_synthetic(std::span<std::byte> payload, std::uint64_t sequence) {
    Pattern pattern(sequence);
    for (std::byte& byte : payload) {
        byte = pattern.next();
    }
}

bool is_synthetic(std::span<const std::byte> payload, std::uint64_t sequence) {
    Pattern pattern(sequence);
    for (const std::byte byte : payload) {
        if (byte != pattern.next()) {
            return false;
        }
    }
    return true;
}

}  // namespace zav_shm::tool
