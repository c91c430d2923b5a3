// SPDX-License-Identifier: Apache-2.0
//
// The slot: a header of 128 bytes with the payload's length at 16, then the payload.
#include "raw_channel.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <vector>

#include "support/raw_client.h"

namespace {

constexpr std::size_t header_bytes = 128;
constexpr std::size_t payload_bytes_max = 4096;

// 0, the whole page, and everything between.
std::uint32_t payload_bytes(std::uint64_t number) {
    return static_cast<std::uint32_t>(number * 409 % (payload_bytes_max + 1));
}

std::vector<unsigned char> contents(const Raw_Channel::Frame& frame) {
    const std::uint32_t length = payload_bytes(frame.number);
    std::vector<unsigned char> bytes(header_bytes + length);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<unsigned char>(frame.number * 31 + i * 7 + frame.source);
    }
    std::memcpy(bytes.data(), &frame.number, sizeof frame.number);
    std::memcpy(bytes.data() + 8, &frame.sent_ns, sizeof frame.sent_ns);
    std::memcpy(bytes.data() + 16, &length, sizeof length);
    bytes[20] = frame.source;
    return bytes;
}

Raw_Channel::Frame checked(const unsigned char* slot, std::size_t slot_bytes) {
    const std::vector<unsigned char> bytes(slot, slot + slot_bytes);  // copied as a consumer does
    Raw_Channel::Frame frame;
    std::memcpy(&frame.number, bytes.data(), sizeof frame.number);
    std::memcpy(&frame.sent_ns, bytes.data() + 8, sizeof frame.sent_ns);
    frame.source = bytes[20];
    const auto expected = contents(frame);
    frame.is_right = expected.size() <= bytes.size() &&
                     std::equal(expected.begin(), expected.end(), bytes.begin());
    return frame;
}

}  // namespace

Raw_Channel::Raw_Channel(const std::string& reply, Side side) : side_(side) {
    const char* const fields[] = {"sem_path_src", "sem_path_dst", "sem_path_exist"};
    semaphores_open_ = true;
    for (std::size_t i = 0; i < std::size(fields); ++i) {
        semaphores_[i] = sem_open(field_of(reply, fields[i]).c_str(), 0);
        semaphores_open_ = semaphores_open_ && semaphores_[i] != SEM_FAILED;
    }
    map(field_of(reply, "shm_path"));
}

Raw_Channel::~Raw_Channel() {
    unmap();
    for (sem_t* const semaphore : semaphores_) {
        if (semaphore != SEM_FAILED) {
            sem_close(semaphore);
        }
    }
}

bool Raw_Channel::use_segment_of(const std::string& reply) {
    unmap();
    map(field_of(reply, "shm_path"));
    return is_open();
}

bool Raw_Channel::send(std::uint64_t number, std::uint8_t source) {
    if (!wait(2, 10)) {
        return false;
    }
    const auto bytes = contents({number, source, now_ns(), true});
    std::memcpy(slot_, bytes.data(), std::min(bytes.size(), slot_bytes_));
    post(0);
    wait(1, 33);
    return true;
}

std::optional<Raw_Channel::Frame> Raw_Channel::take() {
    post(2);
    if (!wait(0, 30)) {
        return std::nullopt;
    }
    const Frame frame = checked(slot_, slot_bytes_);
    post(1);
    return frame;
}

std::int64_t Raw_Channel::now_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

// The C library refuses such names with a slash inside, so the file is opened where it lies.
void Raw_Channel::map(const std::string& name) {
    const bool writes = side_ == Side::producer;
    const int file = open(("/dev/shm" + name).c_str(), (writes ? O_RDWR : O_RDONLY) | O_CLOEXEC);
    struct stat status {};
    if (file < 0 || fstat(file, &status) != 0) {
        return;
    }
    slot_bytes_ = static_cast<std::size_t>(status.st_size);
    void* const address = mmap(nullptr, slot_bytes_, writes ? PROT_READ | PROT_WRITE : PROT_READ,
                               MAP_SHARED, file, 0);
    close(file);
    slot_ = address == MAP_FAILED ? nullptr : static_cast<unsigned char*>(address);
}

void Raw_Channel::unmap() {
    if (slot_ != nullptr) {
        munmap(slot_, slot_bytes_);
        slot_ = nullptr;
    }
}

bool Raw_Channel::wait(int semaphore, long ms) {
    timespec deadline{};
    clock_gettime(CLOCK_REALTIME, &deadline);
    const long ns = deadline.tv_nsec + ms * 1'000'000;
    deadline.tv_sec += ns / 1'000'000'000;
    deadline.tv_nsec = ns % 1'000'000'000;
    return sem_timedwait(semaphores_[semaphore], &deadline) == 0;
}

void Raw_Channel::post(int semaphore) {
    int value = 0;
    sem_getvalue(semaphores_[semaphore], &value);
    if (value == 0) {
        sem_post(semaphores_[semaphore]);
    }
}
