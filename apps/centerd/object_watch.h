// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "apps/centerd/inventory.h"

namespace zav_shm::centerd {

/// Notices that names below /dev/shm no longer lead to what the center has made: files that were
/// removed, replaced or cut, or the segments' folder as a whole. What the center and its clients
/// have open goes on; whoever opens the names does not find it.
///
/// A segment that was cut gets its length again under the same name: of the processes that have it
/// mapped, those that did not touch it meanwhile live on. Nothing else can be mended in place.
///
/// Looks at some names at a time, so that thousands of them do not cost a core.
class Object_Watch {
public:
    /// Remembers what the names lead to now.
    explicit Object_Watch(const Inventory& inventory);

    struct Finding {
        std::vector<std::string> mended;  // "segment /dev/shm/shm/A_0_0 was cut to 0 bytes; ..."
        std::optional<std::string> lost;  // "segment /dev/shm/shm/A_0_0 was removed"
    };

    /// Looks at the next names.
    Finding look();

private:
    enum class Kind { folder, segment, semaphore };
    struct Object {
        Kind kind = Kind::folder;
        std::string path;
        std::uint64_t bytes = 0;  // not of a folder
        dev_t device = 0;
        ino_t inode = 0;
    };

    void remember(Kind kind, const std::string& path, std::uint64_t bytes);
    void look_at(const Object& object, Finding& found);
    void mend(const Object& object, std::uint64_t left_bytes, Finding& found);

    std::vector<Object> objects_;
    std::size_t next_ = 0;
    bool mending_failed_ = false;  // told once, until it works again
};

}  // namespace zav_shm::centerd
