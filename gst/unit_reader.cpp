// SPDX-License-Identifier: Apache-2.0
#include "gst/unit_reader.h"

#include <algorithm>
#include <array>

#include "apps/media/nal_scan.h"
#include "apps/media/nal_types.h"

namespace zav_shm::gst {

namespace {

constexpr std::array<std::byte, 4> long_start_code{std::byte{0}, std::byte{0}, std::byte{0},
                                                   std::byte{1}};

// Zero bytes behind a NAL unit belong to the next start code, or to nothing.
std::span<const std::byte> without_zeros(std::span<const std::byte> nal_unit) {
    while (!nal_unit.empty() && nal_unit.back() == std::byte{0}) {
        nal_unit = nal_unit.first(nal_unit.size() - 1);
    }
    return nal_unit;
}

bool is_delimiter(media::Video_Codec codec, std::byte first) {
    const unsigned type = media::nal_type(codec, first);
    return type ==
           (codec == media::Video_Codec::h264 ? media::h264::delimiter : media::h265::delimiter);
}

}  // namespace

Unit_Facts Unit_Reader::read(std::span<const std::byte> unit, bool is_entry) {
    Unit_Facts facts;
    brought_.clear();
    sets_position_ = 0;
    for (media::Nal_Scan scan(unit); scan.next();) {
        const auto nal_unit = without_zeros(scan.nal_unit());
        const auto meaning = media::meaning_of(codec_, nal_unit);
        if (!meaning) {
            continue;  // cut off behind its first byte
        }
        facts.is_key |= meaning->is_key;
        facts.is_recovery_point |= meaning->is_recovery_point;
        if (meaning->is_configuration) {
            facts.has_configuration = true;
            keep(media::nal_type(codec_, nal_unit[0]), nal_unit);
        } else if (brought_.empty() && is_delimiter(codec_, nal_unit[0])) {
            sets_position_ =
                static_cast<std::size_t>(nal_unit.data() - unit.data()) + nal_unit.size();
        }
        inspector_.inspect(codec_, nal_unit);
    }
    const bool entry_by_type = facts.is_key || facts.is_recovery_point;
    const auto findings = inspector_.conclude(entry_by_type);
    facts.is_recovery_point =
        !facts.is_key && (facts.is_recovery_point || findings.is_recovery_point || is_entry);
    is_entry_ = facts.is_key || facts.is_recovery_point;
    return facts;
}

void Unit_Reader::keep(unsigned type, std::span<const std::byte> nal_unit) {
    Bytes& kept = sets_[type];
    if (brought_.insert(type).second) {
        kept.clear();
    }
    kept.insert(kept.end(), long_start_code.begin(), long_start_code.end());
    kept.insert(kept.end(), nal_unit.begin(), nal_unit.end());
}

std::span<const std::byte> Unit_Reader::completed(std::span<const std::byte> unit) {
    const auto lacks = [this](const auto& set) { return !brought_.contains(set.first); };
    if (!is_entry_ || std::none_of(sets_.begin(), sets_.end(), lacks)) {
        return unit;
    }
    const auto behind_delimiter = unit.subspan(sets_position_);
    completed_.assign(unit.begin(), unit.begin() + static_cast<std::ptrdiff_t>(sets_position_));
    for (const auto& set : sets_) {
        if (lacks(set)) {
            completed_.insert(completed_.end(), set.second.begin(), set.second.end());
        }
    }
    completed_.insert(completed_.end(), behind_delimiter.begin(), behind_delimiter.end());
    return completed_;
}

}  // namespace zav_shm::gst
