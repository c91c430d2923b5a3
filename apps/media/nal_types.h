// SPDX-License-Identifier: Apache-2.0
#pragma once

// NAL unit types of the two standards, as far as anything here asks for them (ITU-T H.264 table
// 7-1, ITU-T H.265 table 7-1).

namespace zav_shm::media {

namespace h264 {
inline constexpr unsigned slice = 1;
inline constexpr unsigned slice_partition_a = 2;
inline constexpr unsigned slice_idr = 5;
inline constexpr unsigned sei = 6;
inline constexpr unsigned sps = 7;
inline constexpr unsigned pps = 8;
inline constexpr unsigned delimiter = 9;
inline constexpr unsigned prefix = 14;
inline constexpr unsigned subset_sps = 15;
inline constexpr unsigned reserved_before_picture_last = 18;
}  // namespace h264

namespace h265 {
inline constexpr unsigned irap_first = 16;  // BLA, IDR and CRA
inline constexpr unsigned idr_first = 19;
inline constexpr unsigned idr_last = 20;
inline constexpr unsigned irap_last = 23;
inline constexpr unsigned slice_last = 31;
inline constexpr unsigned vps = 32;
inline constexpr unsigned sps = 33;
inline constexpr unsigned pps = 34;
inline constexpr unsigned delimiter = 35;
inline constexpr unsigned prefix_sei = 39;
inline constexpr unsigned reserved_before_picture_first = 41;
inline constexpr unsigned reserved_before_picture_last = 44;
inline constexpr unsigned unspecified_before_picture_first = 48;
inline constexpr unsigned unspecified_before_picture_last = 55;
}  // namespace h265

}  // namespace zav_shm::media
