// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zav_shm::web {

/// Whose frames: producer, channel and stream.
struct Stream_Key {
    std::string name;
    int channel = 0;
    int stream = 0;
};

/// The key in the name of a ring's file: "CAM_LOOP_0_1". Names may hold underscores.
///
/// @return nothing for files of other kinds.
std::optional<Stream_Key> key_of_file(std::string_view file);

struct Stream_Facts {
    Stream_Key key;
    std::string codec;         // as in the frame header, "H264"; empty before the first key frame
    std::string mime;          // what a browser is to be told of H.264: video/mp4; codecs="..."
    std::uint32_t width = 0;   // pixels
    std::uint32_t height = 0;  // pixels
    double frames_per_second = 0;  // as the publisher says; 0 unknown
    double age_s = 0;              // of the newest key frame
};

/// The streams that have a history in this folder of the segments, "shm", by name. Each is looked
/// into once; what cannot be read is left out.
std::vector<Stream_Facts> list_streams(const std::string& folder);

/// The same as a JSON array, for the page.
std::string json_of(const std::vector<Stream_Facts>& streams);

}  // namespace zav_shm::web
