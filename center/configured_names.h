// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <span>
#include <string>

#include "config/zav_shm_config.h"

namespace zav_shm {

/// The names of one list of the configuration, as requests are checked against them.
class Configured_Names {
public:
    using Record = _SHM_DIST_RECV_CONFIG_;

    static Configured_Names producers(const ZAV_SHM_CONFIG* config);
    static Configured_Names consumers(const ZAV_SHM_CONFIG* config);

    /// The first entry of that name; null when there is none.
    const Record* find(const std::string& name) const;

    /// True when any entry of that name has the channel and stream.
    bool has(const std::string& name, int channel, int stream) const;

    /// Channel and stream count against the entry's; there is no lower bound.
    static bool covers(const Record& record, int channel, int stream);

private:
    explicit Configured_Names(std::span<Record* const> records) : records_(records) {}

    std::span<Record* const> records_;
};

}  // namespace zav_shm
