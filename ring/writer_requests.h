// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "ipc/descriptor.h"
#include "ipc/ring_place.h"

namespace zav_shm {

// Requests to the writer of a ring: a file of 8 bytes beside it, which its readers may write. Any
// other number than before is a request; what it asks for is the writer's affair. The writer looks
// at it with pread: a mapping could be truncated under it.

/// The writer's side.
///
/// Owner    of the file, which stays for the next writer.
/// Threads  one.
/// Errors   without the file there are no requests.
class Writer_Requests {
public:
    /// Makes the file `ring`.request, or takes the one that is there, and lets those write to it
    /// who may list its folder, or whom `access` lets read the ring. Requests from before do not
    /// count.
    explicit Writer_Requests(const std::string& ring,
                             const std::optional<Ring_Access>& access = {});

    /// False when the file could not be made, or has been removed or replaced: nobody who asks is
    /// heard.
    bool is_named() const;

    /// True when somebody has asked since the last call. Costs one system call.
    bool take();

private:
    std::uint64_t number() const;

    std::string path_;
    Descriptor file_;
    std::uint64_t last_ = 0;
};

/// Asks the writer of the ring.
///
/// @return false with errno when there is no such file, or no right to write to it.
bool send_writer_request(const std::string& ring);

}  // namespace zav_shm
