// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zav_shm {

// Where the ring of a channel lies, and who may read and write it. Everything that opens a ring by
// name, or lists rings, asks here.
//
// Rings lie in the rings' folder, where every client makes files. A producer that the configuration
// gives groups to has a folder of its own in there, "CAM_LOOP.d", which the center's host makes:
//
//     CAM_LOOP.d                     of the host's user and the producers' group, sticky
//     CAM_LOOP.d/stream_0.readers    empty; group and mode are what the rings of that stream get
//     CAM_LOOP.d/CAM_LOOP_0_0        and .lock, .request: the publisher's
//
// A folder of that name that belongs to anybody but the owner of the rings' folder is somebody's
// trap, and not looked at. Nobody but that owner can replace a right one.

/// Group and mode of a ring.
struct Ring_Access {
    gid_t group = 0;
    mode_t mode = 0;  // of the ring

    /// What everybody may read needs no group.
    std::optional<gid_t> needed_group() const {
        return (mode & 0044U) == 0040U ? std::optional(group) : std::nullopt;
    }
};

/// "/dev/shm/shm/rings/CAM_LOOP.d", whether it is there or not.
std::string guarded_folder(const std::string& rings, std::string_view producer);

/// True when it is there and the host's.
bool is_guarded(const std::string& rings, std::string_view producer);

/// The ring of this producer: in its own folder, if there is one. A system call where there is
/// none.
std::string ring_path(const std::string& rings, std::string_view producer, int channel, int stream);

/// The file that says who may read the stream's rings.
std::string readers_file(const std::string& guarded, int stream);

/// What the ring of this stream is to get. Nothing in the folder of all: what its mode says.
std::optional<Ring_Access> ring_access(const std::string& rings, std::string_view producer,
                                       int stream);

/// Why this process may not read the stream; empty when it may, or when nobody is kept out.
std::string reading_refusal(const std::string& rings, std::string_view producer, int stream);

/// Why this process may not make rings of this producer; empty when it may, or when nobody is kept
/// out.
std::string producing_refusal(const std::string& rings, std::string_view producer);

/// All files that may be rings, by name and path: those of all folders. No file has both a name in
/// the folder of all and a producer with a folder of its own.
std::vector<std::pair<std::string, std::string>> ring_files(const std::string& rings);

}  // namespace zav_shm
