// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

#include "frame_pattern.h"
#include "roles.h"
#include "stream/zav_stream_processor.h"

int roles::relay(const Arguments& arguments) {
    mkdir("/dev/shm/shm", 0700);
    const auto producer = producer_names();
    const IPC_SHMEMORY slot(producer.shm_path.c_str(), O_CREAT | O_RDWR, 0600,
                            frame_pattern::page_size + 128);
    ZAV_SHM_Stream_Transmission_Receiver source(&producer);
    std::vector<std::unique_ptr<ZAV_SHM_Stream_Transmission_Distributor>> writers;
    SHM_Stream_Transmission relay(&source);
    const int consumers = std::atoi(arguments[1].c_str());
    for (int i = 0; i < consumers; ++i) {
        const auto names = consumer_names("C" + std::to_string(i));
        writers.push_back(std::make_unique<ZAV_SHM_Stream_Transmission_Distributor>(&names));
        relay.insert_distributor(writers.back().get());
    }
    if (relay.run(fun_transmission_stream) != 0) {
        return EXIT_FAILURE;
    }
    print_ready();
    while (true) {
        pause();
    }
}
