// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <span>
#include <vector>

#include "apps/media/nal_unit.h"
#include "apps/media/unit_inspector.h"

namespace zav_shm::gst {

/// What a decoder wants to know of an access unit.
struct Unit_Facts {
    bool is_key = false;             // an IDR picture
    bool is_recovery_point = false;  // none, and still a decoder may begin here
    bool has_configuration = false;  // carries VPS, SPS or PPS
};

/// Reads the access units of one H.264 or H.265 stream with start codes, and keeps the parameter
/// sets that it has seen: a decoder that begins at a key frame has seen none of those before.
///
/// Memory   the newest parameter sets, and the last access unit that was completed.
/// Threads  one.
class Unit_Reader {
public:
    explicit Unit_Reader(media::Video_Codec codec) : codec_(codec) {}

    /// Reads the next access unit.
    ///
    /// @param is_entry  the stream's source says that a decoder may begin here
    Unit_Facts read(std::span<const std::byte> unit, bool is_entry);

    /// The access unit that was read last, with the parameter sets that it lacks in front of its
    /// first picture. Only an access unit that a decoder may begin at gets any.
    ///
    /// @param unit  as given to read()
    /// @return `unit` itself when it lacks none, else a copy that the next call overwrites.
    std::span<const std::byte> completed(std::span<const std::byte> unit);

private:
    using Bytes = std::vector<std::byte>;

    void keep(unsigned type, std::span<const std::byte> nal_unit);

    const media::Video_Codec codec_;
    media::Unit_Inspector inspector_;

    // By the NAL unit's type, which is the order that decoders want them in, with start codes. Of
    // each type those that came together last.
    std::map<unsigned, Bytes> sets_;

    // Of the access unit that was read last.
    std::set<unsigned> brought_;  // types of parameter sets
    bool is_entry_ = false;
    std::size_t sets_position_ = 0;  // behind the delimiter, which has to come first

    Bytes completed_;
};

}  // namespace zav_shm::gst
