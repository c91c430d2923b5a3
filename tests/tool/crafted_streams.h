// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "tool/split_streams.h"

// NAL units of H.264 with start codes, written bit by bit as far as anything here reads them.

namespace crafted {

/// "1 011 00101": fields of a header as bits, blanks ignored, filled up with zero bits.
inline Bytes bits(const std::string& text) {
    Bytes result;
    unsigned count = 0;
    for (const char character : text) {
        if (character == ' ') {
            continue;
        }
        if (count % 8 == 0) {
            result.push_back(std::byte{0});
        }
        if (character == '1') {
            result.back() |= std::byte{0x80} >> (count % 8);
        }
        ++count;
    }
    return result;
}

inline const Bytes start = bytes({0, 0, 1});

// Baseline, level 3.0, id 0, frame_num of 4 bits, picture order type 2, 96x64, frames only.
inline const Bytes sps_frames =
    start + bytes({0x67, 66, 0, 30}) + bits("1 1 011 010 0 00110 00100 1 1 0 0 1");
// The same in 32 lines of map units, in frames or fields.
inline const Bytes sps_fields =
    start + bytes({0x67, 77, 0, 30}) + bits("1 1 011 010 0 00110 010 0 0 1 0 0 1");
inline const Bytes pps = start + bytes({0x68}) + bits("1 1 0 0 1 1 1 0 00 1 1 1 0 0 0 1");

// first_mb_in_slice 0, slice_type 7 (I) or 5 (P), picture set 0, then a payload without zero bytes.
inline const Bytes idr = start + bytes({0x65}) + bits("1 0001000 1 0000 1") + bytes({0x55, 0x55});
inline const Bytes i_slice =
    start + bytes({0x61}) + bits("1 0001000 1 0010 1") + bytes({0x55, 0x55});
inline const Bytes i_next_slice =
    start + bytes({0x61}) + bits("010 0001000 1 0010 1") + bytes({0x55});
inline const Bytes p_slice = start + bytes({0x41}) + bits("1 00110 1 0001 1") + bytes({0x55, 0x55});
inline const Bytes p_next_slice =
    start + bytes({0x41}) + bits("010 00110 1 0001 1") + bytes({0x55});

// A recovery point message: type 6, length 1, recovery_frame_cnt 0 and flags.
inline const Bytes recovery = start + bytes({0x06, 6, 1, 0xC4, 0x80});

// frame_num 1, field_pic_flag and, of a field, bottom_field_flag: of a stream that has fields.
inline const Bytes idr_top_field =
    start + bytes({0x65}) + bits("1 0001000 1 0000 1 0 1") + bytes({0x55});
inline const Bytes top_field = start + bytes({0x41}) + bits("1 00110 1 0001 1 0 1") + bytes({0x55});
inline const Bytes bottom_field =
    start + bytes({0x41}) + bits("1 00110 1 0001 1 1 1") + bytes({0x55});
inline const Bytes field_frame = start + bytes({0x41}) + bits("1 00110 1 0001 0 1") + bytes({0x55});

}  // namespace crafted
