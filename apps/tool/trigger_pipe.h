// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ipc/descriptor.h"

// How `zav-shm trigger` reaches the recorders of a name: each one has a named pipe of its own
// beside the rings, NAME_CHANNEL_STREAM.<16 digits>.trigger, which all may write to that may read
// there. No center is needed, a line is taken whole or not at all, and a pipe that its recorder has
// left, however it ended, cannot be opened for writing.

namespace zav_shm::tool {

/// A recorder's end.
///
/// Owner    of the pipe's name.
/// Crash    leaves the name, which the next `zav-shm trigger` removes.
class Trigger_Pipe {
public:
    /// @param folder  of the rings
    /// @param end     "RECODER_0_0"
    Trigger_Pipe(std::string folder, const std::string& end);
    ~Trigger_Pipe();
    Trigger_Pipe(const Trigger_Pipe&) = delete;
    Trigger_Pipe& operator=(const Trigger_Pipe&) = delete;

    /// Makes the pipe where it is not there: the folder may come only with a publisher, and anybody
    /// who cleans up may remove it.
    ///
    /// @return false, with errno, when there is none now.
    bool keep();

    /// How many triggers came since the last call; of very many, the next call counts the rest.
    std::uint64_t take();

    /// Readable when one has come; -1 while there is no pipe.
    int descriptor() const { return pipe_.get(); }

    const std::string& path() const { return path_; }

private:
    bool has_name() const;
    bool make();

    const std::string folder_;
    const std::string path_;
    Descriptor pipe_;
};

/// What came of one trigger.
struct Triggered {
    std::uint64_t recorders = 0;        // have it
    std::vector<std::string> problems;  // of those that are there and cannot have it
};

/// Triggers all recorders of one channel end, or of all ends of a name, and removes the pipes that
/// killed ones have left.
///
/// @param end  "RECODER_0_0"; nothing: all of `name`
Triggered trigger_recorders(const std::string& folder, const std::string& name,
                            const std::optional<std::string>& end);

}  // namespace zav_shm::tool
