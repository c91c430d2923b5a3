// SPDX-License-Identifier: Apache-2.0
#include "apps/rtspd/clients.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "apps/log/log.h"

namespace zav_shm::rtspd {

namespace {

using Clock = std::chrono::steady_clock;

// Longer than any client needs from its connection to its first SETUP.
constexpr std::chrono::seconds idle_max{30};

// Seconds of a stream, and not minutes: what lies there is old when it is read.
constexpr int unsent_bytes_max = 512 * 1024;

bool has_session(GstRTSPClient* client) {
    bool found = false;
    g_list_free_full(gst_rtsp_client_session_filter(
                         client,
                         [](GstRTSPClient*, GstRTSPSession*, gpointer any) {
                             *static_cast<bool*>(any) = true;
                             return GST_RTSP_FILTER_KEEP;
                         },
                         &found),
                     g_object_unref);
    return found;
}

}  // namespace

void Clients::watch(GstRTSPServer* server) {
    g_signal_connect(server, "client-connected", G_CALLBACK(on_connected), this);
}

void Clients::on_connected(GstRTSPServer* /*server*/, GstRTSPClient* client, Clients* clients) {
    GstRTSPConnection* const connection = gst_rtsp_client_get_connection(client);
    const char* const address = gst_rtsp_connection_get_ip(connection);
    if (!clients->let_in(client, address == nullptr ? "" : address)) {
        gst_rtsp_client_close(client);
        return;
    }
    clients->set_up_socket(connection);
    g_signal_connect(client, "closed", G_CALLBACK(on_closed), clients);
    g_signal_connect(client, "pre-describe-request", G_CALLBACK(on_describe), clients);
    g_signal_connect(client, "pre-setup-request", G_CALLBACK(on_setup), clients);
    g_signal_connect(client, "play-request", G_CALLBACK(on_play), nullptr);
}

bool Clients::let_in(GstRTSPClient* client, const std::string& address) {
    const std::lock_guard lock(mutex_);
    const auto known = per_address_.find(address);
    const unsigned present = known == per_address_.end() ? 0 : known->second;
    if (entries_.size() >= options_.clients) {
        write_log(Log_Level::warning, address,
                  "is refused: there are " + std::to_string(entries_.size()) +
                      " clients, and --clients is " + std::to_string(options_.clients));
        return false;
    }
    if (present >= options_.clients_per_address) {
        write_log(Log_Level::warning, address,
                  "is refused: " + std::to_string(present) +
                      " clients are there from this address, and --clients-per-address is " +
                      std::to_string(options_.clients_per_address));
        return false;
    }
    ++per_address_[address];
    entries_[client] = {address, Clock::now()};
    write_log(Log_Level::info, address, "a client connects");
    return true;
}

void Clients::set_up_socket(GstRTSPConnection* connection) const {
    GSocket* const socket = gst_rtsp_connection_get_write_socket(connection);
    if (socket == nullptr) {
        return;
    }
    // The last packet of a frame would wait for the client's next acknowledgement, 40 ms.
    g_socket_set_option(socket, IPPROTO_TCP, TCP_NODELAY, 1, nullptr);
    // The kernel ends the connection when nothing was taken from it for so long; it tells a
    // stopped client, whose window is closed, from one that is only slow.
    g_socket_set_option(socket, IPPROTO_TCP, TCP_USER_TIMEOUT,
                        static_cast<int>(options_.stall.count()), nullptr);
    g_socket_set_option(socket, SOL_SOCKET, SO_SNDBUF, unsent_bytes_max, nullptr);
}

void Clients::on_closed(GstRTSPClient* client, Clients* clients) {
    const std::lock_guard lock(clients->mutex_);
    const auto entry = clients->entries_.find(client);
    if (entry == clients->entries_.end()) {
        return;
    }
    write_log(Log_Level::info, entry->second.address, "a client has left");
    const auto address = clients->per_address_.find(entry->second.address);
    if (--address->second == 0) {
        clients->per_address_.erase(address);
    }
    clients->entries_.erase(entry);
}

GstRTSPStatusCode Clients::on_describe(GstRTSPClient* /*client*/, GstRTSPContext* context,
                                       Clients* clients) {
    return clients->mounts_.prepare(context->uri->abspath);
}

GstRTSPStatusCode Clients::on_setup(GstRTSPClient* /*client*/, GstRTSPContext* context,
                                    Clients* clients) {
    return clients->mounts_.prepare_track(context->uri->abspath);
}

void Clients::on_play(GstRTSPClient* client, GstRTSPContext* context, gpointer /*unused*/) {
    const char* const ip = gst_rtsp_connection_get_ip(gst_rtsp_client_get_connection(client));
    write_log(Log_Level::info, ip == nullptr ? "?" : ip,
              std::string("plays ") + context->uri->abspath);
}

bool Clients::is_idle_too_long(GstRTSPClient* client) {
    const bool is_busy = has_session(client);
    const auto now = Clock::now();
    const std::lock_guard lock(mutex_);
    const auto entry = entries_.find(client);
    if (entry == entries_.end()) {
        return false;
    }
    if (is_busy) {
        entry->second.idle_since = now;
    }
    return now - entry->second.idle_since > idle_max;
}

void Clients::sweep(GstRTSPServer* server) {
    g_list_free_full(gst_rtsp_server_client_filter(
                         server,
                         [](GstRTSPServer*, GstRTSPClient* client, gpointer clients) {
                             return static_cast<Clients*>(clients)->is_idle_too_long(client)
                                        ? GST_RTSP_FILTER_REMOVE
                                        : GST_RTSP_FILTER_KEEP;
                         },
                         this),
                     g_object_unref);
}

unsigned Clients::count() const {
    const std::lock_guard lock(mutex_);
    return static_cast<unsigned>(entries_.size());
}

}  // namespace zav_shm::rtspd
