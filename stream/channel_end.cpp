// SPDX-License-Identifier: Apache-2.0
#include "stream/channel_end.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ostream>

namespace {

void write_semaphore(std::ostream& out, const SEM_CTRL* semaphore) {
    if (semaphore != nullptr) {
        out << *semaphore << '\n';
    }
}

bool same_name(const SEM_CTRL* left, const SEM_CTRL* right) {
    if (left == nullptr || right == nullptr) {
        return left == right;
    }
    return std::strncmp(left->name, right->name, sizeof left->name) == 0;
}

}  // namespace

// ---- what both ends share ----

SHM_Stream_End::~SHM_Stream_End() {
    shm.reset();
    sem_up.reset();
    sem_down.reset();
    for (auto& entry : sem_list) {
        entry.reset();
    }
}

SEM_CTRL* SHM_Stream_End::semaphore(std::size_t i) const {
    return i < sem_list.size() ? sem_list[i].get() : nullptr;
}

void SHM_Stream_End::open_semaphores(const std::string& src, const std::string& dst,
                                     const std::string& exist) {
    for (const std::string* name : {&src, &dst, &exist}) {
        sem_list.push_back(std::make_unique<SEM_CTRL>(name->c_str(), false));
    }
}

// A creating handle that fell back to a semaphore of somebody else may hold posts; a channel
// starts without any.
void SHM_Stream_End::create_semaphores(const std::string& src, const std::string& dst,
                                       const std::string& exist) {
    for (const std::string* name : {&src, &dst, &exist}) {
        sem_list.push_back(std::make_unique<SEM_CTRL>(name->c_str(), true));
    }
    drain_semaphores();
}

void SHM_Stream_End::drain_semaphores() {
    for (const auto& entry : sem_list) {
        if (entry) {
            entry->drain();
        }
    }
}

int SHM_Stream_End::value_at(int i) const {
    return i < 0 ? -1 : value_of(semaphore(static_cast<std::size_t>(i)));
}

bool SHM_Stream_End::slot_is_mapped() const { return shm && shm->is_mapped(); }

int SHM_Stream_End::value_of(const SEM_CTRL* semaphore) {
    return semaphore == nullptr ? -1 : semaphore->value();
}

void SHM_Stream_End::post_if_zero(SEM_CTRL* semaphore) {
    if (semaphore != nullptr) {
        semaphore->post_if_zero();
    }
}

void SHM_Stream_End::wait_forever(SEM_CTRL* semaphore) {
    if (semaphore != nullptr) {
        semaphore->wait_forever();
    }
}

void SHM_Stream_End::open_slot(const std::string& segment, int oflag) {
    shm = std::make_unique<IPC_SHMEMORY>(segment.c_str(), oflag);
    if (shm->is_mapped()) {
        mlock(shm->mem_addr, shm->size);  // a small memory-lock limit is not an error here
    }
}

void SHM_Stream_End::write_dump(std::ostream& out) const {
    write_semaphore(out, sem_up.get());
    if (shm) {
        out << "**************\n" << shm->get_shm_path() << "\n**************\n";
    }
    write_semaphore(out, sem_down.get());
}

// ---- the writing end ----

void SHM_Stream_Distributor::start() {}

int SHM_Stream_Distributor::distribute_frame(void* data, int len) {
    if (data == nullptr || len < 0 || !slot_is_mapped()) {
        return 0;
    }
    const auto wanted = static_cast<std::size_t>(len);
    std::memcpy(shm->mem_addr, data, std::min(wanted, shm->mapped_bytes()));
    return len;
}

int SHM_Stream_Distributor::time_wait(long ms) { return counted_wait(sem_down.get(), ms); }

void SHM_Stream_Distributor::get_sem_value() const {
    std::printf("Distributor (%d, %d)\n", get_sem_up_value(), get_sem_down_value());
}

void SHM_Stream_Distributor::set_shm_root_path(const std::string& path) {
    IPC_SHMEMORY::set_root_path(path);
}

bool SHM_Stream_Distributor::operator==(const SHM_Stream_Distributor& other) const {
    if (other.sem_list.size() < sem_list.size()) {
        return false;
    }
    return std::equal(
        sem_list.begin(), sem_list.end(), other.sem_list.begin(),
        [](const auto& left, const auto& right) { return same_name(left.get(), right.get()); });
}

bool SHM_Stream_Distributor::timed_wait_at(std::size_t i, long ms) {
    return counted_wait(semaphore(i), ms) == 0;
}

int SHM_Stream_Distributor::counted_wait(SEM_CTRL* semaphore, long ms) {
    if (semaphore == nullptr) {
        errno = EINVAL;
        return -1;
    }
    const int result = semaphore->wait(ms);
    if (result == 0) {
        sem_wait_error = 0;
    } else if (errno == ETIMEDOUT) {
        ++sem_wait_error;
    }
    return result;
}

std::ostream& operator<<(std::ostream& out, const SHM_Stream_Distributor& end) {
    end.write_dump(out);
    return out;
}

// ---- the reading end ----

void SHM_Stream_Receiver::start() {
    if (sem_up) {
        sem_up->try_wait();  // once on purpose: at most one pending post is taken
    }
    post_if_zero(sem_down.get());
}

int SHM_Stream_Receiver::receive_frame(void* buf, int len) {
    if (!slot_is_mapped()) {
        std::puts("Get NULL mem_addr!!!");
        return 0;
    }
    if (buf == nullptr || len < 0) {
        return 0;
    }
    const auto wanted = static_cast<std::size_t>(len);
    std::memcpy(buf, shm->mem_addr, std::min(wanted, shm->mapped_bytes()));
    return static_cast<int>(std::min(wanted, std::size_t{shm->size}));
}

int SHM_Stream_Receiver::change_shm(const char* path) {
    return shm ? shm->shm_change_path(path) : static_cast<int>(IPC_SHMEMORY::closed);
}

void SHM_Stream_Receiver::get_sem_value() const {
    std::printf("Receiver (%d, %d)\n", value_of(sem_up.get()), value_of(sem_down.get()));
}

void SHM_Stream_Receiver::set_shm_root_path(const std::string& path) {
    IPC_SHMEMORY::set_root_path(path);
}

bool SHM_Stream_Receiver::timed_wait_at(std::size_t i, long ms) {
    SEM_CTRL* const waited = semaphore(i);
    return waited != nullptr && waited->wait(ms) == 0;
}

std::ostream& operator<<(std::ostream& out, const SHM_Stream_Receiver& end) {
    end.write_dump(out);
    return out;
}
