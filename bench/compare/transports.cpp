// SPDX-License-Identifier: Apache-2.0
//
// Which systems there are is decided by the build, which defines COMPARE_... for each that it
// found.

#include "bench/compare/transports.h"

namespace zav_shm::bench::compare {

std::vector<std::unique_ptr<Transport>> built_transports() {
    std::vector<std::unique_ptr<Transport>> all;
    all.push_back(make_zav_shm_transport(false));
    all.push_back(make_zav_shm_transport(true));
    all.push_back(make_unix_socket_transport());
#ifdef COMPARE_ZEROMQ
    all.push_back(make_zeromq_transport());
#endif
#ifdef COMPARE_GSTREAMER
    all.push_back(make_gstreamer_transport());
#endif
#ifdef COMPARE_ICEORYX
    all.push_back(make_iceoryx_transport(false));
    all.push_back(make_iceoryx_transport(true));
#endif
    return all;
}

std::vector<std::string> left_out_transports() {
    std::vector<std::string> lines;
#ifndef COMPARE_ZEROMQ
    lines.emplace_back("ZeroMQ: not built, cppzmq-dev and libzmq3-dev were not found");
#endif
#ifndef COMPARE_GSTREAMER
    lines.emplace_back("GStreamer: not built, libgstreamer-plugins-base1.0-dev was not found");
#endif
#ifndef COMPARE_ICEORYX
    lines.emplace_back("iceoryx: not built, libiceoryx-posh-dev or iceoryx was not found");
#endif
    return lines;
}

}  // namespace zav_shm::bench::compare
