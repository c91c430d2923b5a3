// SPDX-License-Identifier: Apache-2.0
//
// The checksum takes eight bytes a step, each through a table of what it does to a remainder so
// many bytes later. No library: that of Debian cannot be installed for 32-bit ARM beside a native
// one, and a device does without one more.
#include "apps/trace/trace_bytes.h"

#include <array>

namespace zav_shm::trace {

namespace {

constexpr std::uint32_t polynomial = 0x82F63B78U;  // 0x1EDC6F41, the lowest bit first
constexpr std::size_t step_bytes = 8;

using Table = std::array<std::uint32_t, 256>;

// tables[n][byte]: the remainder of the byte with n zero bytes behind it.
constexpr std::array<Table, step_bytes> make_tables() {
    std::array<Table, step_bytes> tables{};
    for (std::uint32_t byte = 0; byte < 256; ++byte) {
        std::uint32_t remainder = byte;
        for (int bit = 0; bit < 8; ++bit) {
            remainder = (remainder >> 1U) ^ ((remainder & 1U) != 0 ? polynomial : 0);
        }
        tables[0][byte] = remainder;
    }
    for (std::size_t n = 1; n < step_bytes; ++n) {
        for (std::size_t byte = 0; byte < 256; ++byte) {
            const std::uint32_t before = tables[n - 1][byte];
            tables[n][byte] = (before >> 8U) ^ tables[0][before & 0xFFU];
        }
    }
    return tables;
}

constexpr std::array<Table, step_bytes> tables = make_tables();

constexpr std::uint32_t byte_of(std::uint32_t number, unsigned which) {
    return (number >> (8 * which)) & 0xFFU;
}

std::uint32_t four_bytes(const std::byte* bytes) {
    std::uint32_t number = 0;
    for (unsigned i = 0; i < 4; ++i) {
        number |= std::to_integer<std::uint32_t>(bytes[i]) << (8 * i);
    }
    return number;
}

}  // namespace

std::uint32_t checksum(std::span<const std::byte> bytes, std::uint32_t before) {
    std::uint32_t remainder = ~before;
    for (; bytes.size() >= step_bytes; bytes = bytes.subspan(step_bytes)) {
        const std::uint32_t low = remainder ^ four_bytes(bytes.data());
        const std::uint32_t high = four_bytes(bytes.data() + 4);
        remainder = 0;
        for (unsigned i = 0; i < 4; ++i) {
            remainder ^= tables[7 - i][byte_of(low, i)] ^ tables[3 - i][byte_of(high, i)];
        }
    }
    for (const std::byte byte : bytes) {
        remainder = (remainder >> 8U) ^
                    tables[0][(remainder ^ std::to_integer<std::uint32_t>(byte)) & 0xFFU];
    }
    return ~remainder;
}

}  // namespace zav_shm::trace
