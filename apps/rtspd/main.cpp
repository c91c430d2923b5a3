// SPDX-License-Identifier: Apache-2.0
//
// zav-shm-rtspd, streams for RTSP clients. docs/rtsp.md is its manual.
#include <fcntl.h>
#include <gst/gst.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "apps/log/log.h"
#include "apps/rtspd/arguments.h"
#include "apps/rtspd/problem.h"
#include "apps/rtspd/server.h"

namespace {

using namespace zav_shm;
using namespace zav_shm::rtspd;

// A standard stream that is closed would lend its number to the next file.
void open_standard_streams() {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(stream, F_GETFD) < 0 && open("/dev/null", O_RDWR) < 0) {
            return;
        }
    }
}

int run(const Options& options) {
    open_log("zav-shm-rtspd", options.log_level);
    GError* error = nullptr;
    if (gst_init_check(nullptr, nullptr, &error) == FALSE) {
        write_log(Log_Level::error, std::string("GStreamer does not start: ") +
                                        (error == nullptr ? "unknown reason" : error->message));
        return static_cast<int>(Exit_Status::system);
    }
    const auto problem = serve(options);
    if (!problem) {
        return static_cast<int>(Exit_Status::ok);
    }
    write_log(Log_Level::error, problem->text);
    return static_cast<int>(problem->status);
}

}  // namespace

int main(int argc, char** argv) {
    open_standard_streams();
    open_log("zav-shm-rtspd");
    std::signal(SIGPIPE, SIG_IGN);
    int status = static_cast<int>(Exit_Status::system);
    try {
        const auto options = read_arguments(argc, argv);
        const int* const ended = std::get_if<int>(&options);
        status = ended != nullptr ? *ended : run(std::get<Options>(options));
    } catch (const std::exception& error) {  // for want of memory or threads
        write_log(Log_Level::error, error.what());
    }
    // Threads of clients may still run: nothing is torn down under them.
    std::fflush(nullptr);
    std::_Exit(status);
}
