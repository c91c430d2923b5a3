// SPDX-License-Identifier: Apache-2.0
#include "apps/rtspd/server.h"

#include <glib-unix.h>
#include <gst/rtsp-server/rtsp-server.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>

#include "apps/rtspd/access.h"
#include "apps/rtspd/clients.h"
#include "apps/rtspd/gst_reference.h"
#include "apps/rtspd/hubs.h"
#include "apps/rtspd/mounts.h"

namespace zav_shm::rtspd {

namespace {

// All clients are told goodbye within this time, or not at all.
constexpr std::chrono::milliseconds goodbye_max{400};
constexpr int waiting_connections = 16;

struct Loop_Release {
    void operator()(GMainLoop* loop) const { g_main_loop_unref(loop); }
};

class Server {
public:
    explicit Server(const Options& options)
        : options_(options),
          hubs_(options.folder, options.cache_bytes),
          server_(gst_rtsp_server_new()),
          points_(gst_rtsp_server_get_mount_points(server_.get())),
          mounts_(options, hubs_, points_.get()),
          clients_(options, mounts_),
          loop_(g_main_loop_new(nullptr, FALSE)) {}

    std::optional<Problem> run() {
        gst_rtsp_server_set_address(server_.get(), options_.address.c_str());
        gst_rtsp_server_set_service(server_.get(), std::to_string(options_.port).c_str());
        gst_rtsp_server_set_backlog(server_.get(), waiting_connections);
        // A thread for each client: who waits for a picture holds up nobody.
        const Object_Reference<GstRTSPThreadPool> threads(
            gst_rtsp_server_get_thread_pool(server_.get()));
        gst_rtsp_thread_pool_set_max_threads(threads.get(), -1);
        clients_.watch(server_.get());
        if (auto problem = set_up_access(server_.get(), options_)) {
            return problem;
        }
        if (auto problem = listen()) {
            return problem;
        }
        for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
            g_unix_signal_add(number, on_signal, loop_.get());
        }
        g_timeout_add_seconds(1, on_second, this);
        say_ready();
        g_main_loop_run(loop_.get());
        send_clients_away();
        return {};
    }

private:
    std::optional<Problem> listen() {
        GError* error = nullptr;
        GSource* const source = gst_rtsp_server_create_source(server_.get(), nullptr, &error);
        if (source == nullptr) {
            const Error_Reference held(error);
            return Problem{Exit_Status::system,
                           "cannot listen on " + options_.address + ", port " +
                               std::to_string(options_.port) + ": " +
                               (error == nullptr ? "unknown reason" : error->message)};
        }
        g_source_attach(source, nullptr);
        g_source_unref(source);
        return {};
    }

    void say_ready() const {
        const bool is_bracketed = options_.address.find(':') != std::string::npos;
        std::printf(
            "zav-shm-rtspd %s (pid %d) is ready at %s://%s:%d/\n", ZAV_SHM_VERSION,
            static_cast<int>(getpid()), options_.tls_certificate.empty() ? "rtsp" : "rtsps",
            is_bracketed ? ("[" + options_.address + "]").c_str() : options_.address.c_str(),
            gst_rtsp_server_get_bound_port(server_.get()));
        std::fflush(stdout);
    }

    static gboolean on_signal(gpointer loop) {
        g_main_loop_quit(static_cast<GMainLoop*>(loop));
        return G_SOURCE_CONTINUE;
    }

    static gboolean on_second(gpointer self) {
        static_cast<Server*>(self)->sweep();
        return G_SOURCE_CONTINUE;
    }

    void sweep() {
        // Sessions of clients that vanished without a word.
        const Object_Reference<GstRTSPSessionPool> sessions(
            gst_rtsp_server_get_session_pool(server_.get()));
        gst_rtsp_session_pool_cleanup(sessions.get());
        clients_.sweep(server_.get());
        mounts_.sweep();
        hubs_.sweep();
    }

    // Each client's own thread does it; one that is stuck is left to the end of the process.
    void send_clients_away() {
        g_list_free_full(
            gst_rtsp_server_client_filter(
                server_.get(),
                [](GstRTSPServer*, GstRTSPClient*, gpointer) { return GST_RTSP_FILTER_REMOVE; },
                nullptr),
            g_object_unref);
        const auto end = std::chrono::steady_clock::now() + goodbye_max;
        while (clients_.count() > 0 && std::chrono::steady_clock::now() < end) {
            g_main_context_iteration(nullptr, FALSE);
            g_usleep(5000);
        }
    }

    const Options& options_;
    Hubs hubs_;
    const Object_Reference<GstRTSPServer> server_;
    const Object_Reference<GstRTSPMountPoints> points_;
    Mounts mounts_;
    Clients clients_;
    const std::unique_ptr<GMainLoop, Loop_Release> loop_;
};

}  // namespace

std::optional<Problem> serve(const Options& options) {
    // Never destroyed: at the end of the process threads of clients may still be using it.
    auto* const server = new Server(options);
    return server->run();
}

}  // namespace zav_shm::rtspd
