// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "apps/rtspd/stream_hub.h"

namespace zav_shm::rtspd {

/// The hubs of the streams that clients are using, or used a moment ago.
///
/// Threads  any.
class Hubs {
public:
    Hubs(std::string folder, std::size_t bytes_max)
        : folder_(std::move(folder)), bytes_max_(bytes_max) {}

    /// The stream's hub, which begins to read when there is none yet.
    std::shared_ptr<Stream_Hub> hub(const Stream_Address& address);

    /// Ends those that nobody has used for some seconds. To be called each second.
    void sweep();

    /// True when the stream's publisher has made its ring.
    bool has_ring(const Stream_Address& address) const;

private:
    struct Entry {
        std::shared_ptr<Stream_Hub> hub;
        std::chrono::steady_clock::time_point used;
    };

    const std::string folder_;
    const std::size_t bytes_max_;
    std::mutex mutex_;
    std::map<Stream_Address, Entry> hubs_;
};

}  // namespace zav_shm::rtspd
