// SPDX-License-Identifier: Apache-2.0
#include "apps/rtspd/mounts.h"

#include "apps/log/log.h"
#include "apps/rtspd/media_factory.h"

namespace zav_shm::rtspd {

std::optional<Stream_Address> Mounts::find(const std::string& path) const {
    for (const Mount& mount : options_.mounts) {
        if (mount.path == path) {
            return mount.stream;
        }
    }
    auto stream = options_.only_mounts ? std::nullopt : parse_path(path);
    return stream && hubs_.has_ring(*stream) ? stream : std::nullopt;
}

GstRTSPStatusCode Mounts::prepare(const std::string& path) {
    const auto stream = find(path);
    if (!stream) {
        return GST_RTSP_STS_NOT_FOUND;
    }
    const auto hub = hubs_.hub(*stream);
    if (!hub->wait_for_picture(options_.wait)) {
        write_log(Log_Level::warning, stream->text(), "no picture for a client: " + hub->trouble());
        return hub->counters().refused > 0 ? GST_RTSP_STS_UNSUPPORTED_MEDIA_TYPE
                                           : GST_RTSP_STS_SERVICE_UNAVAILABLE;
    }
    add(path, *stream);
    return GST_RTSP_STS_OK;
}

GstRTSPStatusCode Mounts::prepare_track(const std::string& path) {
    {
        const std::lock_guard lock(mutex_);
        if (added_.count(path.substr(0, path.rfind('/'))) > 0) {
            return GST_RTSP_STS_OK;
        }
    }
    return prepare(path.substr(0, path.rfind('/')));
}

void Mounts::add(const std::string& path, const Stream_Address& stream) {
    const std::lock_guard lock(mutex_);
    if (added_.insert(path).second) {
        gst_rtsp_mount_points_add_factory(
            points_, path.c_str(), new_media_factory(hubs_, stream, options_.wait).release());
    }
}

void Mounts::sweep() {
    const std::lock_guard lock(mutex_);
    for (auto path = added_.begin(); path != added_.end();) {
        if (find(*path)) {
            ++path;
        } else {
            gst_rtsp_mount_points_remove_factory(points_, path->c_str());
            path = added_.erase(path);
        }
    }
}

}  // namespace zav_shm::rtspd
