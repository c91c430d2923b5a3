// SPDX-License-Identifier: Apache-2.0
//
// zav-shm-centerd, the host of the center. docs/daemon.md is its manual.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <new>

#include "apps/centerd/arguments.h"
#include "apps/centerd/configuration.h"
#include "apps/centerd/daemon.h"
#include "apps/centerd/hand_over.h"
#include "apps/centerd/limits.h"
#include "apps/centerd/signals.h"

namespace {

using namespace zav_shm;
using namespace zav_shm::centerd;

Outcome run(const Options& options) {
    ZAV_SHM_CONFIG config;
    if (Outcome refused = load(options.config_path, config)) {
        return refused;
    }
    Access_Rights rights;
    if (Outcome failed = Access_Rights::resolve(options, rights)) {
        return failed;
    }
    Control_Queues queues;
    if (Outcome failed = Control_Queues::find_keys(queues)) {
        return failed;
    }
    if (!options.hand_over.empty()) {
        return hand_over(options.hand_over, Inventory(config), queues);
    }
    Daemon daemon(options, config, rights, queues);
    return options.check ? daemon.check() : daemon.run();
}

// A standard stream that is closed would lend its number to the next file: a lock, or a segment
// that what the center prints would be written into.
void open_standard_streams() {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(stream, F_GETFD) < 0 && open("/dev/null", O_RDWR) < 0) {
            return;
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    open_standard_streams();
    open_log("zav-shm-centerd");
    // Whole lines, also into a pipe: what the center prints is read while it runs.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    set_up_signals();
    try {
        const auto options = read_arguments(argc, argv);
        if (const int* const status = std::get_if<int>(&options)) {
            return *status;
        }
        open_log("zav-shm-centerd", std::get<Options>(options).log_level);
        const Outcome failed = run(std::get<Options>(options));
        return failed ? exit_code(*failed) : 0;
    } catch (const std::bad_alloc&) {
        return exit_code(out_of_memory());
    } catch (const std::exception& error) {
        return exit_code(
            failure(Exit_Status::system_error, std::string("cannot go on: ") + error.what()));
    }
}
