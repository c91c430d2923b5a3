// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstdint>

#include "stream/channel_end.h"
#include "stream/channel_names.h"
#include "stream/relay_counters.h"

// The center's halves of the channels. They create the channels' semaphores and own no
// segment: a relay never touches a frame. A failed semaphore leaves a channel that looks
// permanently idle. Nothing throws.

/// The center's half of a producer's channel: takes the producer's posts.
///
/// Threads  the relay thread that it is given to.
class ZAV_SHM_Stream_Transmission_Receiver : public SHM_Stream_Receiver {
public:
    /// Creates the three semaphores of an "SRC" record anew, with the value 0; from a null
    /// record makes an end without any.
    explicit ZAV_SHM_Stream_Transmission_Receiver(const IPC_SHM_CTRL_INFO* names);
    ~ZAV_SHM_Stream_Transmission_Receiver() override = default;

    /// Posts "slot free".
    void post_distributor_write();

    /// Posts "a consumer is present".
    void post_distributor_receiver_exist();

    /// Waits for "frame written", without limit; a signal handler ends the wait early (EINTR).
    void wait_distributor_write();
    bool time_wait_distributor_write(long ms);
};

/// The center's half of a consumer's channel: hands the posts on to the consumer.
///
/// Threads  the relay thread of the relay that it is inserted into, and, under that relay's
///          lock, whoever inserts, removes or resets it.
class ZAV_SHM_Stream_Transmission_Distributor : public SHM_Stream_Distributor {
public:
    /// Creates the three semaphores of a "DST" record anew, with the value 0; from a null
    /// record makes an end without any.
    explicit ZAV_SHM_Stream_Transmission_Distributor(const IPC_SHM_CTRL_INFO* names);
    ~ZAV_SHM_Stream_Transmission_Distributor() override = default;

    /// Set and clear the start flag; both print a line with the endpoint's address.
    void start_transmission();
    void stop_transmission();
    bool is_start_transmission() const { return started; }

    /// Back to the state after construction: all semaphores 0, no timeouts counted, start flag
    /// off. A consumer that is blocked in a wait stays blocked and is woken by the next post.
    void reset();

    /// Posts "frame ready".
    void post_receiver_read();

    /// Waits for "read done", without limit; a signal handler ends the wait early (EINTR).
    void wait_receiver_read();
    bool time_wait_receiver_read(long ms);

    /// Waits for "the consumer is present".
    bool time_wait_receiver_exist(long ms);

    /// Always false, at once: consumers have no way to ask for a pause.
    bool time_wait_receiver_pause(long ms);

    /// Frames that the relay has announced to this consumer.
    std::uint64_t frames_relayed() const { return frames_.value(); }
    void count_frame() { frames_.add_one(); }

    /// For the two-semaphore form: `sem_up` is 1 and `sem_down` is 0.
    bool is_wait_client_receiver() const;

protected:
    zav_shm::Counter frames_;
    std::atomic<bool> started{false};  // only the start-flag variant of the relay uses it
};
