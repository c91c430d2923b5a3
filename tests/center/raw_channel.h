// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <semaphore.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

/// One end of a frame channel, opened by plain POSIX calls from the names in a reply of the
/// center, without any code of the library.
class Raw_Channel {
public:
    enum class Side { producer, consumer };

    /// @param reply  to a successful "register".
    Raw_Channel(const std::string& reply, Side side);
    ~Raw_Channel();
    Raw_Channel(const Raw_Channel&) = delete;
    Raw_Channel& operator=(const Raw_Channel&) = delete;

    bool is_open() const { return slot_ != nullptr && semaphores_open_; }

    /// Maps the segment that another reply names, instead of the present one.
    bool use_segment_of(const std::string& reply);

    /// A frame whose every byte follows from its number and its source.
    struct Frame {
        std::uint64_t number = 0;
        std::uint8_t source = 0;
        std::int64_t sent_ns = 0;  // CLOCK_MONOTONIC
        bool is_right = false;     // every byte is as it should be
    };

    /// Offers a frame, waiting 10 ms for a consumer and then 33 ms for the slot to be free again.
    ///
    /// @return false when there is no consumer.
    bool send(std::uint64_t number, std::uint8_t source);

    /// Announces this consumer and waits 30 ms for a frame.
    std::optional<Frame> take();

    static std::int64_t now_ns();

private:
    void map(const std::string& name);
    void unmap();
    bool wait(int semaphore, long ms);
    void post(int semaphore);

    Side side_;
    sem_t* semaphores_[3] = {};
    bool semaphores_open_ = false;
    unsigned char* slot_ = nullptr;
    std::size_t slot_bytes_ = 0;
};
