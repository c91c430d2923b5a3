// SPDX-License-Identifier: Apache-2.0
#include "stream/relay_endpoint.h"

#include <cstdio>

#include "stream/semaphore_roles.h"

namespace producer_side = zav_shm::producer_side;
namespace consumer_side = zav_shm::consumer_side;

// ---- producer's channel ----

ZAV_SHM_Stream_Transmission_Receiver::ZAV_SHM_Stream_Transmission_Receiver(
    const IPC_SHM_CTRL_INFO* names) {
    if (names != nullptr) {
        create_semaphores(names->sem_path_src, names->sem_path_dst, names->sem_path_exist);
    }
}

void ZAV_SHM_Stream_Transmission_Receiver::post_distributor_write() {
    post_if_zero(semaphore(producer_side::slot_free));
}

void ZAV_SHM_Stream_Transmission_Receiver::post_distributor_receiver_exist() {
    post_if_zero(semaphore(producer_side::consumer_present));
}

void ZAV_SHM_Stream_Transmission_Receiver::wait_distributor_write() {
    wait_forever(semaphore(producer_side::frame_written));
}

bool ZAV_SHM_Stream_Transmission_Receiver::time_wait_distributor_write(long ms) {
    return timed_wait_at(producer_side::frame_written, ms);
}

// ---- consumer's channel ----

ZAV_SHM_Stream_Transmission_Distributor::ZAV_SHM_Stream_Transmission_Distributor(
    const IPC_SHM_CTRL_INFO* names) {
    if (names != nullptr) {
        create_semaphores(names->sem_path_src, names->sem_path_dst, names->sem_path_exist);
    }
}

void ZAV_SHM_Stream_Transmission_Distributor::start_transmission() {
    std::printf("Distributor %p start_transmission\n", static_cast<void*>(this));
    started = true;
}

void ZAV_SHM_Stream_Transmission_Distributor::stop_transmission() {
    std::printf("Distributor %p stop_transmission\n", static_cast<void*>(this));
    started = false;
}

void ZAV_SHM_Stream_Transmission_Distributor::reset() {
    drain_semaphores();
    sem_wait_error = 0;
    started = false;
}

void ZAV_SHM_Stream_Transmission_Distributor::post_receiver_read() {
    post_if_zero(semaphore(consumer_side::frame_ready));
}

void ZAV_SHM_Stream_Transmission_Distributor::wait_receiver_read() {
    wait_forever(semaphore(consumer_side::read_done));
}

bool ZAV_SHM_Stream_Transmission_Distributor::time_wait_receiver_read(long ms) {
    return timed_wait_at(consumer_side::read_done, ms);
}

bool ZAV_SHM_Stream_Transmission_Distributor::time_wait_receiver_exist(long ms) {
    return timed_wait_at(consumer_side::consumer_present, ms);
}

bool ZAV_SHM_Stream_Transmission_Distributor::time_wait_receiver_pause(long /*ms*/) {
    return false;
}

bool ZAV_SHM_Stream_Transmission_Distributor::is_wait_client_receiver() const {
    return get_sem_up_value() == 1 && get_sem_down_value() <= 0;
}
