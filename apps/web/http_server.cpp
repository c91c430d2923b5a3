// SPDX-License-Identifier: Apache-2.0
#include "apps/web/http_server.h"

#include <arpa/inet.h>
#include <microhttpd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <exception>
#include <optional>
#include <utility>

#include "apps/log/log.h"
#include "apps/web/live_video.h"
#include "apps/web/page_content.h"
#include "apps/web/stream_list.h"
#include "ipc/shared_memory_folder.h"

// A thread for each connection: a viewer's own cursor in the history, muxer and socket wait for
// nothing but each other, and a browser that stalls holds up its own thread alone.

namespace zav_shm::web {

namespace {

constexpr unsigned connection_timeout_s = 20;      // without a byte taken or sent
constexpr std::chrono::seconds request_limit{10};  // from its first byte to its last one
constexpr std::size_t request_memory = 32'768;
constexpr std::size_t live_block = 65'536;

// Nothing from elsewhere, and no page of elsewhere around this one.
constexpr std::array<std::pair<const char*, const char*>, 6> security_headers{{
    {"Content-Security-Policy",
     "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; media-src "
     "blob:; "
     "img-src 'self' data:; base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"X-Frame-Options", "DENY"},
    {"Referrer-Policy", "no-referrer"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Cache-Control", "no-store"},
}};

struct Free_Response {
    void operator()(MHD_Response* response) const { MHD_destroy_response(response); }
};
using Response = std::unique_ptr<MHD_Response, Free_Response>;

Response response_of(std::string_view text, const std::string& type) {
    Response response(MHD_create_response_from_buffer(text.size(), const_cast<char*>(text.data()),
                                                      MHD_RESPMEM_MUST_COPY));
    MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CONTENT_TYPE, type.c_str());
    return response;
}

int send(MHD_Connection* connection, unsigned status, const Response& response) {
    for (const auto& [name, value] : security_headers) {
        MHD_add_response_header(response.get(), name, value);
    }
    return MHD_queue_response(connection, status, response.get());
}

int refuse(MHD_Connection* connection, unsigned status, const std::string& why) {
    return send(connection, status, response_of(why + "\n", "text/plain; charset=utf-8"));
}

std::string text_of(MHD_Connection* connection, MHD_ValueKind kind, const char* name) {
    const char* const value = MHD_lookup_connection_value(connection, kind, name);
    return value != nullptr ? value : "";
}

std::string address_of(MHD_Connection* connection) {
    const auto* const info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    std::array<char, INET6_ADDRSTRLEN> text{'?'};
    if (info != nullptr && info->client_addr->sa_family == AF_INET) {
        const auto* const v4 = reinterpret_cast<const sockaddr_in*>(info->client_addr);
        inet_ntop(AF_INET, &v4->sin_addr, text.data(), text.size());
    } else if (info != nullptr && info->client_addr->sa_family == AF_INET6) {
        const auto* const v6 = reinterpret_cast<const sockaddr_in6*>(info->client_addr);
        inet_ntop(AF_INET6, &v6->sin6_addr, text.data(), text.size());
    }
    return text.data();
}

std::optional<int> number_of(const std::string& text) {
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && number >= 0
               ? std::optional(number)
               : std::nullopt;
}

std::optional<Stream_Key> key_of(MHD_Connection* connection) {
    const auto argument = [connection](const char* name) {
        return text_of(connection, MHD_GET_ARGUMENT_KIND, name);
    };
    const auto channel = number_of(argument("channel"));
    const auto stream = number_of(argument("stream"));
    const std::string name = argument("name");
    if (!channel || !stream || !is_file_name(name)) {
        return {};
    }
    return Stream_Key{name, *channel, *stream};
}

ssize_t read_live(void* video, std::uint64_t /*position*/, char* room, std::size_t bytes) {
    try {
        const std::size_t count = static_cast<Live_Video*>(video)->read({room, bytes});
        return count != 0 ? static_cast<ssize_t>(count) : MHD_CONTENT_READER_END_OF_STREAM;
    } catch (const std::exception&) {  // no memory: this viewer's connection ends
        return MHD_CONTENT_READER_END_WITH_ERROR;
    }
}

void free_live(void* video) { delete static_cast<Live_Video*>(video); }

}  // namespace

struct Http_Server::Library {
    static MHD_Result request(void* server, MHD_Connection* connection, const char* path,
                              const char* method, const char* /*version*/, const char* /*upload*/,
                              std::size_t* upload_bytes, void** seen) {
        // The first call comes before the body, of which nothing is wanted.
        if (*seen == nullptr) {
            *seen = server;
            static_cast<Http_Server*>(server)->deadline_->is_met(connection);
            return MHD_YES;
        }
        if (*upload_bytes != 0) {
            *upload_bytes = 0;
            return MHD_YES;
        }
        try {
            return static_cast<MHD_Result>(
                static_cast<Http_Server*>(server)->answer(connection, path, method));
        } catch (const std::exception&) {  // no memory, or no thread
            return MHD_NO;
        }
    }

    static void connection(void* server, MHD_Connection* connection, void** /*context*/,
                           MHD_ConnectionNotificationCode what) {
        Request_Deadline& deadline = *static_cast<Http_Server*>(server)->deadline_;
        const auto* const info =
            MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
        if (what == MHD_CONNECTION_NOTIFY_STARTED && info != nullptr) {
            deadline.begin(connection, info->connect_fd);
        } else {
            deadline.end(connection);
        }
    }

    static void answered(void* server, MHD_Connection* connection, void** /*seen*/,
                         MHD_RequestTerminationCode /*how*/) {
        static_cast<Http_Server*>(server)->deadline_->begin_next(connection);
    }
};

void Http_Server::Stop::operator()(MHD_Daemon* daemon) const { MHD_stop_daemon(daemon); }

Http_Server::Http_Server(const Options& options, std::string token)
    : options_(options), access_(std::move(token)) {}

Http_Server::~Http_Server() { close(); }

std::string Http_Server::open() {
    sockaddr_in v4{};
    sockaddr_in6 v6{};
    v4.sin_family = AF_INET;
    v6.sin6_family = AF_INET6;
    v4.sin_port = v6.sin6_port = htons(options_.port);
    const bool is_v4 = inet_pton(AF_INET, options_.address.c_str(), &v4.sin_addr) == 1;
    if (!is_v4 && inet_pton(AF_INET6, options_.address.c_str(), &v6.sin6_addr) != 1) {
        return "\"" + options_.address + "\" is no IPv4 or IPv6 address";
    }
    const void* const address = is_v4 ? static_cast<const void*>(&v4) : &v6;
    // MHD_USE_ITC: a connection that ends wakes the thread that gives its place back. Without it
    // the place is taken until the next client comes, who is refused for that.
    const unsigned flags = MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD |
                           MHD_USE_POLL | MHD_USE_ITC | (is_v4 ? 0U : unsigned{MHD_USE_IPv6});
    deadline_ = std::make_unique<Request_Deadline>(request_limit);
    errno = 0;
    daemon_.reset(MHD_start_daemon(
        flags, 0, nullptr, nullptr, Library::request, this, MHD_OPTION_SOCK_ADDR,
        static_cast<const sockaddr*>(address), MHD_OPTION_CONNECTION_LIMIT, options_.viewers,
        MHD_OPTION_PER_IP_CONNECTION_LIMIT, options_.viewers_per_address,
        MHD_OPTION_CONNECTION_TIMEOUT, connection_timeout_s, MHD_OPTION_CONNECTION_MEMORY_LIMIT,
        request_memory, MHD_OPTION_NOTIFY_CONNECTION, Library::connection, this,
        MHD_OPTION_NOTIFY_COMPLETED, Library::answered, this, MHD_OPTION_END));
    return daemon_ ? ""
                   : "cannot listen on " + options_.address + " port " +
                         std::to_string(options_.port) + ": " + std::strerror(errno);
}

std::uint16_t Http_Server::port() const {
    const MHD_DaemonInfo* const info =
        MHD_get_daemon_info(daemon_.get(), MHD_DAEMON_INFO_BIND_PORT);
    return info != nullptr ? info->port : options_.port;
}

void Http_Server::close() {
    stopping_ = true;
    daemon_.reset();
}

bool Http_Server::is_allowed(MHD_Connection* connection, std::string& given_token) const {
    given_token = text_of(connection, MHD_GET_ARGUMENT_KIND, "token");
    const std::string cookie = text_of(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_COOKIE);
    const std::string header = text_of(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_AUTHORIZATION);
    return !access_.needs_token() || access_.allows_token(given_token) ||
           access_.allows_token(token_in_cookie(cookie)) ||
           access_.allows_token(token_in_authorization(header));
}

int Http_Server::answer(MHD_Connection* connection, const std::string& path,
                        const std::string& method) {
    if (method != MHD_HTTP_METHOD_GET && method != MHD_HTTP_METHOD_HEAD) {
        const Response refusal = response_of("only GET and HEAD are answered\n", "text/plain");
        MHD_add_response_header(refusal.get(), MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
        return send(connection, MHD_HTTP_METHOD_NOT_ALLOWED, refusal);
    }
    if (!access_.allows_host(text_of(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_HOST))) {
        return refuse(connection, MHD_HTTP_FORBIDDEN,
                      "this server is called by a loopback name, or with a token");
    }
    std::string token;
    if (!is_allowed(connection, token)) {
        write_log(Log_Level::warning, address_of(connection),
                  "is refused: no token, or another one");
        return refuse(connection, MHD_HTTP_UNAUTHORIZED, "a token is needed: /?token=...");
    }
    if (path == "/") {
        const Response page = response_of(index_html, "text/html; charset=utf-8");
        if (!token.empty() && access_.needs_token()) {
            const std::string cookie =
                std::string(cookie_name) + "=" + token + "; HttpOnly; SameSite=Strict; Path=/";
            MHD_add_response_header(page.get(), MHD_HTTP_HEADER_SET_COOKIE, cookie.c_str());
        }
        return send(connection, MHD_HTTP_OK, page);
    }
    if (path == "/page.css") {
        return send(connection, MHD_HTTP_OK, response_of(page_css, "text/css; charset=utf-8"));
    }
    if (path == "/page.js") {
        return send(connection, MHD_HTTP_OK,
                    response_of(page_js, "text/javascript; charset=utf-8"));
    }
    if (path == "/streams") {
        return send(connection, MHD_HTTP_OK,
                    response_of(json_of(list_streams(options_.folder)), "application/json"));
    }
    return path == "/live" ? answer_live(connection)
                           : refuse(connection, MHD_HTTP_NOT_FOUND, "there is no such page");
}

int Http_Server::answer_live(MHD_Connection* connection) {
    const auto key = key_of(connection);
    if (!key) {
        return refuse(
            connection, MHD_HTTP_BAD_REQUEST,
            "name, channel and stream are needed: /live?name=CAM_LOOP&channel=0&stream=0");
    }
    auto video = std::make_unique<Live_Video>(*key, options_.folder, stopping_);
    if (const std::string problem = video->begin(); !problem.empty()) {
        return refuse(connection, MHD_HTTP_NOT_FOUND, problem);
    }
    const std::string published = std::to_string(video->published_ms());
    const Response response(MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, live_block,
                                                              read_live, video.get(), free_live));
    if (!response) {
        return MHD_NO;
    }
    write_log(Log_Level::info, address_of(connection),
              "watches " + key->name + "/" + std::to_string(key->channel) + "/" +
                  std::to_string(key->stream));
    video.release();  // free_live() has it now
    MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CONTENT_TYPE, "video/mp4");
    MHD_add_response_header(response.get(), "X-Published-Ms", published.c_str());
    return send(connection, MHD_HTTP_OK, response);
}

}  // namespace zav_shm::web
