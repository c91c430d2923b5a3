// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/status_names.h"

#include <algorithm>
#include <span>

namespace zav_shm::centerd {

namespace {

// The center accepts as many streams as the list is long; those that do not exist are of no use.
Json::Value streams_of(const ZAV_SHM_CONFIG& config, const _SHM_DIST_RECV_CONFIG_& record) {
    const auto streams = config.streams();
    Json::Value list(Json::arrayValue);
    for (std::size_t i = 0; i < std::min(record.stream.size(), streams.size()); ++i) {
        Json::Value stream;
        stream["stream"] = static_cast<int>(i);
        stream["index"] = streams[i]->index;
        stream["page_size"] = streams[i]->page_size;
        list.append(stream);
    }
    return list;
}

Json::Value names_of(const ZAV_SHM_CONFIG& config,
                     std::span<_SHM_DIST_RECV_CONFIG_* const> records) {
    Json::Value list(Json::arrayValue);
    for (const auto* const record : records) {
        Json::Value name;
        name["name"] = record->name;
        name["channels"] = record->channel;
        name["streams"] = streams_of(config, *record);
        list.append(name);
    }
    return list;
}

}  // namespace

Json::Value status_names(const ZAV_SHM_CONFIG& config) {
    Json::Value names;
    names["distributors"] = names_of(config, config.distributors());
    names["receivers"] = names_of(config, config.receivers());
    return names;
}

}  // namespace zav_shm::centerd
