// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <type_traits>
#include <vector>

// Integers of a fixed size, the lowest byte first, whatever the processor has.

namespace zav_shm::trace {

using Bytes = std::vector<std::byte>;

template <std::integral Number>
void put(Bytes& bytes, Number number) {
    const auto value = static_cast<std::make_unsigned_t<Number>>(number);
    for (unsigned i = 0; i < sizeof(Number); ++i) {
        bytes.push_back(static_cast<std::byte>(value >> (8U * i)));
    }
}

inline void put_zeros(Bytes& bytes, std::size_t count) { bytes.resize(bytes.size() + count); }

inline void put_text(Bytes& bytes, std::string_view text) {
    for (const char character : text) {
        bytes.push_back(static_cast<std::byte>(character));
    }
}

/// Takes numbers off the front of bytes. Behind their end everything is 0; see is_short().
class Byte_Reader {
public:
    explicit Byte_Reader(std::span<const std::byte> bytes) : rest_(bytes) {}

    template <std::integral Number>
    Number take() {
        using Unsigned = std::make_unsigned_t<Number>;
        Unsigned value = 0;
        const auto bytes = take_bytes(sizeof(Number));
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            const auto byte = std::to_integer<Unsigned>(bytes[i]);
            value = static_cast<Unsigned>(value | static_cast<Unsigned>(byte << (8U * i)));
        }
        return static_cast<Number>(value);
    }

    template <std::integral Number>
    void take_into(Number& number) {
        number = take<Number>();
    }

    /// Fewer, or none, at the end.
    std::span<const std::byte> take_bytes(std::size_t count) {
        is_short_ = is_short_ || count > rest_.size();
        const auto taken = rest_.first(is_short_ ? 0 : count);
        rest_ = rest_.subspan(taken.size());
        return taken;
    }

    std::span<const std::byte> rest() const { return rest_; }

    /// More was taken than there was.
    bool is_short() const { return is_short_; }

private:
    std::span<const std::byte> rest_;
    bool is_short_ = false;
};

/// CRC-32C, as of storage and network protocols (polynomial 0x1EDC6F41).
///
/// @param before  of what stands before `bytes`; 0 at the begin
std::uint32_t checksum(std::span<const std::byte> bytes, std::uint32_t before = 0);

}  // namespace zav_shm::trace
