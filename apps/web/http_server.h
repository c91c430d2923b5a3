// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "apps/web/access_check.h"
#include "apps/web/options.h"
#include "apps/web/request_deadline.h"

struct MHD_Connection;
struct MHD_Daemon;

namespace zav_shm::web {

/// Serves the page, the list of streams and their live pictures.
///
///   /              the page, with /page.css and /page.js
///   /streams       the list, JSON
///   /live?name=CAM_LOOP&channel=0&stream=0    fragmented MP4 without an end
///
/// Owner    of a socket, a thread that accepts, and one for each connection.
/// Blocking close() takes up to a second.
/// Errors   of a request are answered with a status and a line of text; the server goes on.
class Http_Server {
public:
    Http_Server(const Options& options, std::string token);
    ~Http_Server();
    Http_Server(const Http_Server&) = delete;
    Http_Server& operator=(const Http_Server&) = delete;

    /// @return why not, in a line; empty when it listens.
    std::string open();

    /// The one that it listens on.
    std::uint16_t port() const;

    void close();

private:
    struct Library;  // what libmicrohttpd calls
    struct Stop {
        void operator()(MHD_Daemon* daemon) const;
    };

    int answer(MHD_Connection* connection, const std::string& path, const std::string& method);
    int answer_live(MHD_Connection* connection);
    bool is_allowed(MHD_Connection* connection, std::string& given_token) const;

    const Options options_;
    const Access_Check access_;
    std::atomic<bool> stopping_{false};
    std::unique_ptr<Request_Deadline> deadline_;  // outlives the connections
    std::unique_ptr<MHD_Daemon, Stop> daemon_;
};

}  // namespace zav_shm::web
