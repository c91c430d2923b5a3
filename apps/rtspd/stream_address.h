// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <compare>
#include <optional>
#include <string>
#include <string_view>

namespace zav_shm::rtspd {

/// One stream of a producer, as a path of the server names it: "/CAM_LOOP/0/main".
struct Stream_Address {
    std::string name;  // of the producer
    int channel = 0;
    int stream = 0;

    auto operator<=>(const Stream_Address&) const = default;

    /// "CAM_LOOP/0/1", as in the messages of the system.
    std::string text() const;

    /// "/CAM_LOOP/0/sub": streams 0, 1 and 2 are "main", "sub" and "audio", the others numbers.
    std::string path() const;
};

/// Reads NAME/CHANNEL/STREAM, where STREAM is a number, or "main", "sub" or "audio" for 0, 1 and 2.
///
/// @return nothing when the text is no address; a name that leads out of a folder is none.
std::optional<Stream_Address> parse_address(std::string_view text);

/// The same with a slash in front, and with the characters of the name written as URLs have them.
std::optional<Stream_Address> parse_path(std::string_view path);

}  // namespace zav_shm::rtspd
