// SPDX-License-Identifier: Apache-2.0
#include "bench/compare/transport.h"

#include <cstdlib>

namespace zav_shm::bench::compare {

std::string Channel::socket_path(const std::string& system) const {
    std::string path = "/tmp/" + system;
    path += "-camera" + std::to_string(camera);
    return path += "-stream" + std::to_string(stream);
}

int Transport::run_broker(const Load& /*load*/) const { return EXIT_SUCCESS; }

}  // namespace zav_shm::bench::compare
