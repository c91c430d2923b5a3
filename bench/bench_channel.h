// SPDX-License-Identifier: Apache-2.0
#pragma once

// The one channel of a bench: a producer's slot, and consumers that are paired with it.

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "ipc/zav_shm.h"
#include "stream/channel_names.h"
#include "stream/relay.h"
#include "stream/relay_endpoint.h"

namespace zav_shm::bench {

/// Makes the folder of the segments and tells the library where it is. Once per bench, after
/// enter_private_namespaces().
///
/// @return false with errno when the folder cannot be made.
bool prepare_names();

std::string producer_name();
std::string consumer_name(int consumer);
IPC_SHM_SRC_CTRL_INFO producer_names();
IPC_SHM_DST_CTRL_INFO consumer_names(int consumer);

/// The center's part of the channel: the segment, all semaphores, and the relay with one writer
/// per consumer in its list. The relay's thread runs once start() is called.
class Bench_Center {
public:
    Bench_Center(std::size_t payload_bytes, int consumers);

    /// @return true when segment and semaphores are there and the relay thread runs.
    bool start();

    SHM_Stream_Transmission& relay() { return relay_; }

private:
    IPC_SHMEMORY segment_;
    ZAV_SHM_Stream_Transmission_Receiver source_;
    std::vector<std::unique_ptr<ZAV_SHM_Stream_Transmission_Distributor>> writers_;
    SHM_Stream_Transmission relay_;  // last: it ends before what it uses
};

}  // namespace zav_shm::bench
