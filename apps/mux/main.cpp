// SPDX-License-Identifier: Apache-2.0
//
// zav-shm-mux, a stream in files that players open. docs/recording.md is its manual.
#include <gst/gst.h>

#include <csignal>
#include <exception>
#include <memory>
#include <string>

#include "apps/log/log.h"
#include "apps/mux/arguments.h"
#include "apps/mux/muxed_file.h"
#include "apps/tool/commands.h"

namespace {

using namespace zav_shm;
using tool::Exit_Status;

Exit_Status run(const mux::Options& options) {
    GError* error = nullptr;
    if (gst_init_check(nullptr, nullptr, &error) == FALSE) {
        return tool::report(
            {Exit_Status::system, std::string("GStreamer does not start: ") +
                                      (error == nullptr ? "unknown reason" : error->message)});
    }
    const tool::Standard_Output output(options.record.quiet);
    return tool::record_series(options.record, output, [&](const tool::Stop_Signal& stop) {
        // The tracks of fragmented MP4 begin at once, whatever their first times are.
        const auto begin = options.container == mux::Container::mp4
                               ? mux::Sound_Track::Begin::nearest_to_picture
                               : mux::Sound_Track::Begin::behind_picture;
        auto sounds = options.sounds ? std::make_unique<mux::Sound_Track>(
                                           options.record, *options.sounds, begin, stop)
                                     : nullptr;
        return std::make_unique<mux::Muxed_Files>(
            mux::Muxed_File::Settings{options.container, options.record.sync}, std::move(sounds),
            stop);
    });
}

}  // namespace

int main(int argc, char** argv) {
    tool::occupy_standard_descriptors();
    open_log("zav-shm-mux");
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    Exit_Status status = Exit_Status::system;
    try {
        const auto parsed = mux::read_arguments(argc, argv);
        const auto* const ended = std::get_if<Exit_Status>(&parsed);
        status = ended != nullptr ? *ended : run(std::get<mux::Options>(parsed));
    } catch (const std::exception& failure) {  // for want of memory or threads
        write_log(Log_Level::error, failure.what());
    }
    return static_cast<int>(status);
}
