// SPDX-License-Identifier: Apache-2.0
#include "stream/endpoint.h"

#include <fcntl.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#include "stream/semaphore_roles.h"

namespace producer_side = zav_shm::producer_side;
namespace consumer_side = zav_shm::consumer_side;

namespace {

// A consumer is asked for its presence once per relay cycle; 10 ms without one means that
// nobody wants this frame.
constexpr long presence_wait_ms = 10;

// One frame at 30 frames per second: the producer never falls behind its own rate.
constexpr long slot_free_wait_ms = 33;

// How long a consumer waits before it announces itself again.
constexpr long frame_wait_ms = 30;

std::size_t payload_capacity(const IPC_SHMEMORY& slot) {
    return slot.size < zav_shm::frame_header_bytes ? 0 : slot.size - zav_shm::frame_header_bytes;
}

unsigned char* slot_start(const IPC_SHMEMORY& slot) {
    return static_cast<unsigned char*>(slot.mem_addr);
}

// Loaded exactly once and then checked as a copy: the producer may be broken and may change the
// field at any moment.
std::uint32_t load_payload_length(const IPC_SHMEMORY& slot) {
    const void* const field = slot_start(slot) + zav_shm::payload_length_offset;
    return __atomic_load_n(static_cast<const std::uint32_t*>(field), __ATOMIC_RELAXED);
}

}  // namespace

// ---- producer ----

ZAV_SHM_Stream_Distributor::ZAV_SHM_Stream_Distributor(const std::string& segment,
                                                       const std::string& sem_src,
                                                       const std::string& sem_dst,
                                                       const std::string& sem_exist) {
    open_slot(segment, O_RDWR);
    open_semaphores(sem_src, sem_dst, sem_exist);
}

ZAV_SHM_Stream_Distributor::ZAV_SHM_Stream_Distributor(const std::string& segment,
                                                       const std::string& up,
                                                       const std::string& down) {
    open_slot(segment, O_RDWR);
    sem_up = std::make_unique<SEM_CTRL>(up.c_str(), false);
    sem_down = std::make_unique<SEM_CTRL>(down.c_str(), false);
}

bool ZAV_SHM_Stream_Distributor::distribute_frame(STREAM_FRAME_FORMAT* frame) {
    if (frame == nullptr || !slot_is_mapped() || shm->size < zav_shm::frame_header_bytes) {
        return false;
    }
    const bool has_payload = frame->payload != nullptr && frame->payload_length != 0;
    if (has_payload && frame->payload_length > payload_capacity(*shm)) {
        return false;
    }
    if (!time_wait_receiver_exist(presence_wait_ms)) {
        return false;
    }
    std::memcpy(slot_start(*shm), frame, zav_shm::frame_header_bytes);
    if (has_payload) {
        std::memcpy(slot_start(*shm) + zav_shm::frame_header_bytes, frame->payload,
                    frame->payload_length);
    }
    post_transmission();
    time_wait_transmission(slot_free_wait_ms);
    return true;
}

void ZAV_SHM_Stream_Distributor::post_transmission() {
    post_if_zero(semaphore(producer_side::frame_written));
}

void ZAV_SHM_Stream_Distributor::wait_transmission() {
    wait_forever(semaphore(producer_side::slot_free));
}

bool ZAV_SHM_Stream_Distributor::time_wait_transmission(long ms) {
    return timed_wait_at(producer_side::slot_free, ms);
}

bool ZAV_SHM_Stream_Distributor::time_wait_receiver_exist(long ms) {
    return timed_wait_at(producer_side::consumer_present, ms);
}

// ---- consumer ----

ZAV_SHM_Stream_Receiver::ZAV_SHM_Stream_Receiver(const std::string& segment,
                                                 const std::string& sem_src,
                                                 const std::string& sem_dst,
                                                 const std::string& sem_exist)
    : lock(std::make_unique<zav_shm::Mutex>()) {
    open_slot(segment, O_RDONLY);
    open_semaphores(sem_src, sem_dst, sem_exist);
}

ZAV_SHM_Stream_Receiver::ZAV_SHM_Stream_Receiver(const std::string& segment, const std::string& up,
                                                 const std::string& down)
    : lock(std::make_unique<zav_shm::Mutex>()) {
    open_slot(segment, O_RDONLY);
    sem_up = std::make_unique<SEM_CTRL>(up.c_str(), false);
    sem_down = std::make_unique<SEM_CTRL>(down.c_str(), false);
}

bool ZAV_SHM_Stream_Receiver::receive_frame(STREAM_FRAME_FORMAT* frame) {
    if (frame == nullptr) {
        return false;
    }
    post_transmission_receiver_exist();
    if (!time_wait_transmission(frame_wait_ms)) {
        return false;
    }
    const bool taken = copy_frame_out(frame);
    post_transmission();
    return taken;
}

bool ZAV_SHM_Stream_Receiver::copy_frame_out(STREAM_FRAME_FORMAT* frame) {
    const zav_shm::Guard guard(*lock);
    if (!slot_is_mapped()) {
        std::puts("Get NULL mem_addr!!!");
        return true;
    }
    if (shm->size < zav_shm::frame_header_bytes) {
        return false;
    }
    const std::uint32_t length = load_payload_length(*shm);
    if (length > payload_capacity(*shm)) {
        return false;
    }
    std::memcpy(frame, slot_start(*shm), zav_shm::frame_header_bytes);
    frame->payload_length = length;
    if (frame->payload != nullptr) {
        std::memcpy(frame->payload, slot_start(*shm) + zav_shm::frame_header_bytes, length);
    }
    return true;
}

void ZAV_SHM_Stream_Receiver::receive_frame_pause() {
    print_pause_state("Before");
    post_transmission();
    print_pause_state("After");
    pause_requested = false;
}

void ZAV_SHM_Stream_Receiver::print_pause_state(const char* when) const {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    std::printf("%p In receive_frame_pause %s Post Transmission (%d, %d), %ld %ld\n",
                static_cast<const void*>(this), when, get_sem_up_value(), get_sem_down_value(),
                static_cast<long>(now.tv_sec), now.tv_nsec);
}

int ZAV_SHM_Stream_Receiver::change_shm(const char* path) {
    const zav_shm::Guard guard(*lock);
    if (SHM_Stream_Receiver::change_shm(path) == IPC_SHMEMORY::closed) {
        post_if_zero(sem_down.get());
    }
    pause_requested = false;
    return 1;
}

void ZAV_SHM_Stream_Receiver::post_transmission() {
    post_if_zero(semaphore(consumer_side::read_done));
}

void ZAV_SHM_Stream_Receiver::post_transmission_receiver_exist() {
    post_if_zero(semaphore(consumer_side::consumer_present));
}

void ZAV_SHM_Stream_Receiver::post_transmission_pause_receive() {}

void ZAV_SHM_Stream_Receiver::wait_transmission() {
    wait_forever(semaphore(consumer_side::frame_ready));
}

bool ZAV_SHM_Stream_Receiver::time_wait_transmission(long ms) {
    return timed_wait_at(consumer_side::frame_ready, ms);
}
