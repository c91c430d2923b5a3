// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>

namespace zav_shm::media {

inline constexpr std::array<std::byte, 3> start_code{std::byte{0}, std::byte{0}, std::byte{1}};

/// Walks over the NAL units of a piece of a stream that is in memory as a whole.
///
///   for (Nal_Scan scan(bytes); scan.next();) use(scan.nal_unit());
class Nal_Scan {
public:
    explicit Nal_Scan(std::span<const std::byte> bytes) : rest_(after_start_code(bytes)) {}

    /// Goes to the first NAL unit, and then from each to the one behind it; false at the end.
    bool next() {
        if (rest_.empty()) {
            return false;
        }
        const auto end =
            std::search(rest_.begin(), rest_.end(), start_code.begin(), start_code.end());
        nal_unit_ = rest_.first(static_cast<std::size_t>(end - rest_.begin()));
        rest_ = after_start_code(rest_);
        return true;
    }

    /// Without its start code, and with the zero bytes that may lie behind it.
    std::span<const std::byte> nal_unit() const { return nal_unit_; }

private:
    static std::span<const std::byte> after_start_code(std::span<const std::byte> bytes) {
        const auto found =
            std::search(bytes.begin(), bytes.end(), start_code.begin(), start_code.end());
        const auto skipped = static_cast<std::size_t>(found - bytes.begin());
        return bytes.subspan(std::min(skipped + start_code.size(), bytes.size()));
    }

    std::span<const std::byte> nal_unit_;
    std::span<const std::byte> rest_;
};

}  // namespace zav_shm::media
