// SPDX-License-Identifier: Apache-2.0
#include <csignal>
#include <exception>
#include <variant>

#include "apps/log/log.h"
#include "apps/tool/command_line.h"
#include "apps/tool/commands.h"

namespace {

using namespace zav_shm::tool;

// A pipe that nobody reads any more, and a file that has reached its greatest size, are errors of
// the write that meets them.
void ignore_signals_of_writes() {
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
}

Exit_Status run_program(int argc, const char* const* argv) {
    const auto parsed = read_command_line(argc, argv);
    if (const auto* status = std::get_if<Exit_Status>(&parsed)) {
        return *status;
    }
    return std::visit(
        [](const auto& options) {
            const Standard_Output output(options.quiet);
            return run(options, output);
        },
        std::get<Options>(parsed));
}

}  // namespace

int main(int argc, char** argv) {
    occupy_standard_descriptors();
    ignore_signals_of_writes();
    zav_shm::open_log("zav-shm");
    Exit_Status status = Exit_Status::system;
    try {
        status = run_program(argc, argv);
    } catch (const std::exception& error) {  // for want of memory or threads
        zav_shm::write_log(zav_shm::Log_Level::error, error.what());
    }
    return static_cast<int>(status);
}
