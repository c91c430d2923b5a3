// SPDX-License-Identifier: Apache-2.0
//
// zav-shm-web: the streams of this host in a browser. docs/web.md is its manual.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <string>

#include "apps/log/log.h"
#include "apps/web/arguments.h"
#include "apps/web/fragmented_mp4.h"
#include "apps/web/http_server.h"

namespace {

using namespace zav_shm;
using namespace zav_shm::web;

constexpr std::size_t token_bytes_min = 16;  // what can be guessed is no token

int fail(const std::string& text) {
    write_log(Log_Level::error, text);
    return static_cast<int>(Exit_Status::system_error);
}

// @return why there is no token, in a line.
std::string read_token(const std::string& path, std::string& token) {
    if (path.empty()) {
        return {};
    }
    std::ifstream file(path);
    if (!std::getline(file, token)) {
        return "cannot read a token from \"" + path + "\": " + std::strerror(errno);
    }
    if (token.size() < token_bytes_min) {
        return "the token in \"" + path + "\" has " + std::to_string(token.size()) +
               " characters; the least is " + std::to_string(token_bytes_min);
    }
    return {};
}

int serve(const Options& options) {
    open_log("zav-shm-web", options.log_level);
    std::string token;
    if (const std::string problem = read_token(options.token_file, token); !problem.empty()) {
        return fail(problem);
    }
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);  // in all threads that begin behind this
    std::signal(SIGPIPE, SIG_IGN);
    Fragmented_Mp4::set_up();
    Http_Server server(options, token);
    if (const std::string problem = server.open(); !problem.empty()) {
        return fail(problem);
    }
    const bool is_v6 = options.address.find(':') != std::string::npos;
    std::printf("zav-shm-web: http://%s%s%s:%u/\n", is_v6 ? "[" : "", options.address.c_str(),
                is_v6 ? "]" : "", unsigned{server.port()});
    std::fflush(stdout);
    int signal = 0;
    sigwait(&ending, &signal);
    server.close();
    return static_cast<int>(Exit_Status::ok);
}

}  // namespace

int main(int argc, char** argv) {
    open_log("zav-shm-web");
    const auto options = read_arguments(argc, argv);
    if (const int* const status = std::get_if<int>(&options)) {
        return *status;
    }
    try {
        return serve(std::get<Options>(options));
    } catch (const std::exception& error) {
        return fail(std::string("cannot go on: ") + error.what());
    }
}
