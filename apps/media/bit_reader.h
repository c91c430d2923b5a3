// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace zav_shm::media {

/// Reads the fields of a parameter set, bit by bit. Reading beyond the end yields 0 and is
/// remembered, so that one look at failed() after the last field is enough.
class Bit_Reader {
public:
    /// @param payload  without the bytes that keep start codes out: see without_escapes().
    explicit Bit_Reader(std::span<const std::byte> payload) : payload_(payload) {}

    /// Up to 32 bits, the first one the highest.
    std::uint32_t bits(unsigned count);
    bool flag() { return bits(1) != 0; }
    void skip(std::size_t count);

    /// Exp-Golomb numbers, unsigned and signed. One of more than 32 bits is a failure.
    std::uint32_t unsigned_golomb();
    std::int64_t signed_golomb();

    bool failed() const { return failed_; }

private:
    std::span<const std::byte> payload_;
    std::size_t position_ = 0;  // in bits
    bool failed_ = false;
};

/// The first `bytes_max` bytes of a NAL unit without the 3 of each 0 0 3.
std::vector<std::byte> without_escapes(std::span<const std::byte> nal_unit, std::size_t bytes_max);

}  // namespace zav_shm::media
