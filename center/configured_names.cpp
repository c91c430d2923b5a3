// SPDX-License-Identifier: Apache-2.0
#include "center/configured_names.h"

#include <algorithm>

namespace zav_shm {

Configured_Names Configured_Names::producers(const ZAV_SHM_CONFIG* config) {
    return Configured_Names(config == nullptr ? std::span<Record* const>()
                                              : config->distributors());
}

Configured_Names Configured_Names::consumers(const ZAV_SHM_CONFIG* config) {
    return Configured_Names(config == nullptr ? std::span<Record* const>() : config->receivers());
}

const Configured_Names::Record* Configured_Names::find(const std::string& name) const {
    const auto found = std::find_if(records_.begin(), records_.end(),
                                    [&](const Record* record) { return name == record->name; });
    return found == records_.end() ? nullptr : *found;
}

bool Configured_Names::has(const std::string& name, int channel, int stream) const {
    return std::any_of(records_.begin(), records_.end(), [&](const Record* record) {
        return name == record->name && covers(*record, channel, stream);
    });
}

bool Configured_Names::covers(const Record& record, int channel, int stream) {
    return channel < record.channel && stream < static_cast<int>(record.stream.size());
}

}  // namespace zav_shm
