// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include "apps/tool/center_request.h"
#include "apps/tool/problem.h"

namespace zav_shm::tool {

/// A producer or consumer of the center's configuration, and how many channels and streams it has
/// there. The center pairs a consumer with a channel that does not exist, too, and tells it as a
/// success: so whoever pairs looks here first.
class Configured_Name {
public:
    Configured_Name(std::string name, std::uint64_t channels, std::uint64_t streams)
        : name_(std::move(name)), channels_(channels), streams_(streams) {}

    /// Asks the center.
    ///
    /// @param type  a word of control::type.
    static std::variant<Configured_Name, Problem> ask(const char* type, const std::string& name,
                                                      const Patience& patience);

    std::uint64_t channels() const { return channels_; }
    std::uint64_t streams() const { return streams_; }

    bool has(int channel, int stream) const;

    /// "1 channel (0) and 2 streams (0 to 1)"
    std::string extent() const;

    /// What is wrong with a channel end that it does not have; nothing when it has it.
    std::optional<Problem> missing(int channel, int stream) const;

private:
    std::string name_;
    std::uint64_t channels_;
    std::uint64_t streams_;
};

/// Asks the center whether it has this name with this channel and stream.
std::optional<Problem> check_channel_end(const char* type, const std::string& name, int channel,
                                         int stream, const Patience& patience);

}  // namespace zav_shm::tool
