// SPDX-License-Identifier: Apache-2.0
//
// The start-flag variant of the relay cycle, which the relay thread does not use: a writer takes
// part once its consumer has posted "read done", until it pauses. It has waits of its own.

#include <cstdio>

#include "ipc/standard_output.h"
#include "stream/relay.h"

namespace {

constexpr long join_wait_ms = 5;
constexpr long read_wait_ms = 30;
constexpr long pause_wait_ms = 5;

}  // namespace

void SHM_Stream_Transmission::get_start_transmission_distributor_list(std::list<Writer*>& out) {
    const zav_shm::Guard guard(*lock);
    collect_started(out);
}

void SHM_Stream_Transmission::collect_started(std::list<Writer*>& out) {
    for (Writer* const writer : distributor_list) {
        if (writer->is_start_transmission() || join_if_reading(*writer)) {
            out.push_back(writer);
        }
    }
}

bool SHM_Stream_Transmission::join_if_reading(Writer& writer) {
    if (!writer.time_wait_receiver_read(join_wait_ms)) {
        return false;
    }
    const auto print_source_values = [this](const char* when) {
        std::printf("%s Get Receiver...(%d, %d)\n", when,
                    source == nullptr ? -1 : source->get_sem_up_value(),
                    source == nullptr ? -1 : source->get_sem_down_value());
    };
    std::puts("Tell Distributor Has Receiver");
    print_source_values("Before");
    std::printf("In get list %p start transmission\n", static_cast<void*>(&writer));
    writer.start_transmission();
    start_transmission();
    print_source_values("After");
    return true;
}

int SHM_Stream_Transmission::check_receiver_exist() {
    std::list<Writer*> present;
    get_start_transmission_distributor_list(present);
    return present.empty() ? 0 : 1;
}

void SHM_Stream_Transmission::start_transmission() {
    if (source != nullptr) {
        source->start();
    }
}

// Collected under the same lock as used: a writer that was removed in between must not be.
int SHM_Stream_Transmission::distribute_frame() {
    const zav_shm::Guard guard(*lock);
    std::list<Writer*> present;
    collect_started(present);
    if (!post_frame_ready(present)) {
        return 0;
    }
    for (Writer* const writer : present) {
        if (writer->time_wait_receiver_read(read_wait_ms)) {
            continue;
        }
        zav_shm::standard_output()
            << "The Receiver is too slow to read SHM, it may want to pause receive frame, "
               "or dead\n";
        if (writer->time_wait_receiver_pause(pause_wait_ms)) {
            zav_shm::standard_output() << "Get Receiver Pause Stream\n";
            writer->stop_transmission();
        }
    }
    return 1;
}

int SHM_Stream_Transmission::distribute_frame(std::list<Writer*>& list) {
    const zav_shm::Guard guard(*lock);
    return post_frame_ready(list) ? 1 : 0;
}

bool SHM_Stream_Transmission::post_frame_ready(const std::list<Writer*>& list) {
    if (list.empty()) {
        zav_shm::standard_output() << "In SHM_Stream_Transmission distribute_frame no list\n";
        return false;
    }
    for (Writer* const writer : list) {
        writer->post_receiver_read();
    }
    return true;
}
