// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fcntl.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "stream/zav_stream_processor.h"
#include "support/capture.h"
#include "support/kernel_objects.h"

/// Channel ends as tests need them: with their members open.
class Open_Distributor : public SHM_Stream_Distributor {
public:
    using SHM_Stream_Distributor::sem_down;
    using SHM_Stream_Distributor::sem_list;
    using SHM_Stream_Distributor::sem_up;
    using SHM_Stream_Distributor::sem_wait_error;
    using SHM_Stream_Distributor::shm;
};

class Open_Receiver : public SHM_Stream_Receiver {
public:
    using SHM_Stream_Receiver::sem_down;
    using SHM_Stream_Receiver::sem_list;
    using SHM_Stream_Receiver::sem_up;
    using SHM_Stream_Receiver::shm;
};

/// The third semaphore of either side: whether somebody is there.
inline constexpr std::size_t present = 2;

/// The three semaphores of one side, opened beside the end under test, to post and to look.
class Peer {
public:
    explicit Peer(const IPC_SHM_CTRL_INFO& names) {
        for (const auto* name : {&names.sem_path_src, &names.sem_path_dst, &names.sem_path_exist}) {
            semaphores_.push_back(std::make_unique<SEM_CTRL>(name->c_str(), false));
        }
    }
    void post(std::size_t i) const { sem_post(semaphores_.at(i)->sem); }
    bool take(std::size_t i) const { return semaphores_.at(i)->try_wait() == 0; }
    bool take(std::size_t i, long ms) const { return semaphores_.at(i)->wait(ms) == 0; }
    int value(std::size_t i) const { return semaphores_.at(i)->value(); }
    std::vector<int> values() const { return {value(0), value(1), value(2)}; }

private:
    std::vector<std::unique_ptr<SEM_CTRL>> semaphores_;
};

/// Fixture with channels in the folder /dev/shm/shm: a producer CAM_LOOP and any consumers.
class Channels : public Kernel_Objects {
protected:
    using Source = ZAV_SHM_Stream_Transmission_Receiver;
    using Writer = ZAV_SHM_Stream_Transmission_Distributor;

    void SetUp() override {
        Kernel_Objects::SetUp();
        IPC_SHM_CTRL_INFO::set_shm_root_path("shm");
        make_folder("shm");
    }

    static IPC_SHM_SRC_CTRL_INFO producer_names(const std::string& name = "CAM_LOOP") {
        return IPC_SHM_SRC_CTRL_INFO({name, 0, 0});
    }
    static IPC_SHM_DST_CTRL_INFO consumer_names(const std::string& name) {
        return IPC_SHM_DST_CTRL_INFO({name, 0, 0});
    }

    void make_slot(int page_size, const std::string& name = "CAM_LOOP") {
        const auto names = producer_names(name);
        leaves_segment(names.shm_path);
        IPC_SHMEMORY(names.shm_path.c_str(), O_CREAT | O_RDWR, 0600, page_size + 128);
    }

    std::unique_ptr<Source> make_source(const std::string& name = "CAM_LOOP") {
        const auto names = producer_names(name);
        leaves_semaphores(names);
        return std::make_unique<Source>(&names);
    }

    std::unique_ptr<Writer> make_writer(const std::string& name) {
        const auto names = consumer_names(name);
        leaves_semaphores(names);
        return std::make_unique<Writer>(&names);
    }

    static std::unique_ptr<ZAV_SHM_Stream_Distributor> open_producer(
        const std::string& name = "CAM_LOOP") {
        const auto names = producer_names(name);
        return std::make_unique<ZAV_SHM_Stream_Distributor>(
            names.shm_path, names.sem_path_src, names.sem_path_dst, names.sem_path_exist);
    }

    static std::unique_ptr<ZAV_SHM_Stream_Receiver> open_consumer(
        const std::string& name, const std::string& producer = "CAM_LOOP") {
        const auto names = consumer_names(name);
        return std::make_unique<ZAV_SHM_Stream_Receiver>(producer_names(producer).shm_path,
                                                         names.sem_path_src, names.sem_path_dst,
                                                         names.sem_path_exist);
    }
};

/// A frame record with a buffer of its own, every header byte and payload byte set.
class Frame {
public:
    explicit Frame(std::size_t payload_bytes, unsigned char seed = 1) : payload_(payload_bytes) {
        std::memset(&record_, seed, zav_shm::frame_header_bytes);
        for (std::size_t i = 0; i < payload_bytes; ++i) {
            payload_[i] = static_cast<unsigned char>(seed + i * 7);
        }
        record_.payload_length = static_cast<std::uint32_t>(payload_bytes);
        record_.payload = payload_.data();
    }
    Frame(const Frame&) = delete;
    Frame& operator=(const Frame&) = delete;

    STREAM_FRAME_FORMAT* get() { return &record_; }
    STREAM_FRAME_FORMAT* operator->() { return &record_; }
    std::vector<unsigned char>& payload() { return payload_; }
    bool same_header(const Frame& other) const {
        return std::memcmp(&record_, &other.record_, zav_shm::frame_header_bytes) == 0;
    }

private:
    STREAM_FRAME_FORMAT record_;
    std::vector<unsigned char> payload_;
};
