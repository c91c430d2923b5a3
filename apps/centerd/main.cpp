// SPDX-License-Identifier: Apache-2.0
//
// zav-shm-centerd, the host of the center. docs/daemon.md is its manual.
#include <cstdio>
#include <exception>
#include <new>

#include "apps/centerd/arguments.h"
#include "apps/centerd/configuration.h"
#include "apps/centerd/daemon.h"
#include "apps/centerd/limits.h"
#include "apps/centerd/signals.h"

namespace {

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
    Daemon daemon(options, config, rights, queues);
    return options.check ? daemon.check() : daemon.run();
}

}  // namespace

int main(int argc, char** argv) {
    // Whole lines, also into a pipe: what the center prints is read while it runs.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    set_up_signals();
    try {
        const auto options = read_arguments(argc, argv);
        if (const int* const status = std::get_if<int>(&options)) {
            return *status;
        }
        const Outcome failed = run(std::get<Options>(options));
        return failed ? exit_code(*failed) : 0;
    } catch (const std::bad_alloc&) {
        return exit_code(out_of_memory());
    } catch (const std::exception& error) {
        return exit_code(
            failure(Exit_Status::system_error, std::string("cannot go on: ") + error.what()));
    }
}
