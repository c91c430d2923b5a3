// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gst/rtsp-server/rtsp-server.h>

#include <chrono>
#include <map>
#include <mutex>
#include <string>

#include "apps/rtspd/mounts.h"
#include "apps/rtspd/options.h"

namespace zav_shm::rtspd {

/// Who is connected: lets clients in up to the limits, and sends those away that do nothing.
///
/// Threads  any.
class Clients {
public:
    /// @param options, mounts  outlive this and the server
    Clients(const Options& options, Mounts& mounts) : options_(options), mounts_(mounts) {}

    /// Has the server tell of its clients.
    void watch(GstRTSPServer* server);

    /// Sends those away that have opened no session for a while. To be called each second.
    void sweep(GstRTSPServer* server);

    unsigned count() const;

private:
    struct Entry {
        std::string address;
        std::chrono::steady_clock::time_point idle_since;
    };

    static void on_connected(GstRTSPServer* server, GstRTSPClient* client, Clients* clients);
    static void on_closed(GstRTSPClient* client, Clients* clients);
    static GstRTSPStatusCode on_describe(GstRTSPClient* client, GstRTSPContext* context,
                                         Clients* clients);
    static GstRTSPStatusCode on_setup(GstRTSPClient* client, GstRTSPContext* context,
                                      Clients* clients);
    static void on_play(GstRTSPClient* client, GstRTSPContext* context, gpointer unused);

    bool let_in(GstRTSPClient* client, const std::string& address);
    void set_up_socket(GstRTSPConnection* connection) const;
    bool is_idle_too_long(GstRTSPClient* client);

    const Options& options_;
    Mounts& mounts_;
    mutable std::mutex mutex_;
    std::map<GstRTSPClient*, Entry> entries_;
    std::map<std::string, unsigned> per_address_;
};

}  // namespace zav_shm::rtspd
