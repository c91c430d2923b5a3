// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "bench/compare/transport.h"

namespace zav_shm::bench::compare {

/// All systems that this program was built with, ours first: the order of the tables.
std::vector<std::unique_ptr<Transport>> built_transports();

/// One line for each system that was left out: its name, and the package that is missing.
std::vector<std::string> left_out_transports();

// One function per file; defined where the system's package was found.
std::unique_ptr<Transport> make_zav_shm_transport(bool in_place);
std::unique_ptr<Transport> make_unix_socket_transport();
std::unique_ptr<Transport> make_zeromq_transport();
std::unique_ptr<Transport> make_gstreamer_transport();
std::unique_ptr<Transport> make_iceoryx_transport(bool in_place);

}  // namespace zav_shm::bench::compare
