// SPDX-License-Identifier: Apache-2.0
#include "apps/media/bit_reader.h"

#include <algorithm>

namespace zav_shm::media {

std::uint32_t Bit_Reader::bits(unsigned count) {
    if (count > payload_.size() * 8 - position_) {
        failed_ = true;
        position_ = payload_.size() * 8;
        return 0;
    }
    std::uint32_t value = 0;
    for (unsigned i = 0; i < count; ++i, ++position_) {
        const auto byte = std::to_integer<std::uint32_t>(payload_[position_ / 8]);
        value = value << 1 | (byte >> (7 - position_ % 8) & 1U);
    }
    return value;
}

void Bit_Reader::skip(std::size_t count) {
    if (count > payload_.size() * 8 - position_) {
        failed_ = true;
        position_ = payload_.size() * 8;
        return;
    }
    position_ += count;
}

std::uint32_t Bit_Reader::unsigned_golomb() {
    unsigned zeros = 0;
    while (!failed_ && !flag()) {
        ++zeros;
    }
    if (failed_ || zeros > 31) {
        failed_ = true;
        return 0;
    }
    return static_cast<std::uint32_t>((std::uint64_t{1} << zeros) - 1 + bits(zeros));
}

std::int64_t Bit_Reader::signed_golomb() {
    const std::int64_t code = unsigned_golomb();
    return code % 2 != 0 ? (code + 1) / 2 : -(code / 2);
}

std::vector<std::byte> without_escapes(std::span<const std::byte> nal_unit, std::size_t bytes_max) {
    constexpr std::byte escape{3};
    nal_unit = nal_unit.first(std::min(nal_unit.size(), bytes_max));
    std::vector<std::byte> payload;
    payload.reserve(nal_unit.size());
    unsigned zeros = 0;
    for (const std::byte byte : nal_unit) {
        if (zeros >= 2 && byte == escape) {
            zeros = 0;
            continue;
        }
        zeros = byte == std::byte{0} ? zeros + 1 : 0;
        payload.push_back(byte);
    }
    return payload;
}

}  // namespace zav_shm::media
