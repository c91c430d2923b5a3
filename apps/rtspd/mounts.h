// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gst/rtsp-server/rtsp-server.h>

#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "apps/rtspd/hubs.h"
#include "apps/rtspd/options.h"

namespace zav_shm::rtspd {

/// Which path leads to which stream. A stream is there when its ring is: that is looked at when a
/// client asks, so nothing has to follow what comes and goes.
///
/// Threads  any.
class Mounts {
public:
    /// @param options, hubs  outlive this
    Mounts(const Options& options, Hubs& hubs, GstRTSPMountPoints* points)
        : options_(options), hubs_(hubs), points_(points) {}

    /// Makes the path ready for the request that names it, and waits for a first picture.
    ///
    /// @return GST_RTSP_STS_OK; 404 for a stream that there is not, 415 for one that cannot be
    ///         sent, 503 for one that has no picture within the time
    GstRTSPStatusCode prepare(const std::string& path);

    /// The same for a path with the name of a track behind it.
    GstRTSPStatusCode prepare_track(const std::string& path);

    /// Forgets the paths of streams that have gone.
    void sweep();

private:
    std::optional<Stream_Address> find(const std::string& path) const;
    void add(const std::string& path, const Stream_Address& stream);

    const Options& options_;
    Hubs& hubs_;
    GstRTSPMountPoints* const points_;
    std::mutex mutex_;
    std::set<std::string> added_;
};

}  // namespace zav_shm::rtspd
