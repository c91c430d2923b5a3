// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "ipc/annotated_mutex.h"
#include "stream/channel_end.h"

/// The producer's end of a channel: writes frames into the slot.
///
/// Owner    the producer process. Opens what the center has made, creates nothing. Call
///          set_shm_root_path before constructing, or the segment's size is not found.
/// Threads  used by one thread.
/// Errors   nothing throws. A segment or semaphore that could not be opened leaves an end
///          whose calls fail.
/// Crash    a producer killed in mid-frame leaves the slot half written and perhaps the post
///          "frame written" missing; the relay's next wait then times out and frames go on
///          when the producer is back.
class ZAV_SHM_Stream_Distributor : public SHM_Stream_Distributor {
public:
    /// Three-semaphore form: segment, frame written, slot free, consumer present.
    ZAV_SHM_Stream_Distributor(const std::string& shm, const std::string& sem_src,
                               const std::string& sem_dst, const std::string& sem_exist);

    /// Two-semaphore form.
    ZAV_SHM_Stream_Distributor(const std::string& shm, const std::string& sem_up,
                               const std::string& sem_down);
    ~ZAV_SHM_Stream_Distributor() override = default;

    using SHM_Stream_Distributor::distribute_frame;

    /// Sends one frame: waits up to 10 ms for a consumer to be present, copies header and
    /// payload into the slot, posts "frame written" and waits up to 33 ms for the slot to be
    /// free again.
    ///
    /// @return true when the frame was written, whatever became of the last wait; false when
    ///         no consumer was present, or at once, with nothing touched, for a null frame, an
    ///         unmapped slot, or a payload longer than the slot's page.
    bool distribute_frame(STREAM_FRAME_FORMAT* frame);

    /// Posts "frame written".
    void post_transmission();

    /// Waits for "slot free", without limit; a signal handler ends the wait early (EINTR).
    void wait_transmission();
    bool time_wait_transmission(long ms);

    /// Waits for "a consumer is present".
    bool time_wait_receiver_exist(long ms);
};

/// A consumer's end of a channel: reads frames out of the slot of the producer that the
/// center paired it with.
///
/// Owner    the consumer process; opens only. Call set_shm_root_path before constructing.
/// Threads  one reading thread, and any thread that calls change_shm: `lock` covers copying
///          out of the slot and switching it, not the waits.
/// Errors   nothing throws.
/// Crash    a consumer killed in mid-copy costs its relay one 20 ms wait, and the others
///          nothing more.
class ZAV_SHM_Stream_Receiver : public SHM_Stream_Receiver {
public:
    /// Three-semaphore form: segment, frame ready, read done, consumer present.
    ZAV_SHM_Stream_Receiver(const std::string& shm, const std::string& sem_src,
                            const std::string& sem_dst, const std::string& sem_exist);

    /// Two-semaphore form.
    ZAV_SHM_Stream_Receiver(const std::string& shm, const std::string& sem_up,
                            const std::string& sem_down);
    ~ZAV_SHM_Stream_Receiver() override = default;

    using SHM_Stream_Receiver::receive_frame;

    /// Receives one frame: posts this consumer's presence, waits up to 30 ms for a frame,
    /// copies it into `frame` and to `frame->payload`, and posts "read done".
    ///
    /// Be back in this call within 5 ms of its return: the relay asks that soon who is
    /// present, and leaves out of the next frame whoever is not.
    ///
    /// @param frame  its `payload` must have room for the stream's page size; with a null
    ///               `payload` only the header is copied.
    /// @return true when a frame was taken. Without a mapped slot "Get NULL mem_addr!!!" is
    ///         printed, nothing is copied, and the result is true all the same. False when no
    ///         frame came, for a null frame, and for a frame whose length field is beyond the
    ///         slot (a broken producer): that one is taken off the channel and dropped.
    bool receive_frame(STREAM_FRAME_FORMAT* frame);

    /// Tells the relay not to wait for this consumer while it stops reading. Prints the
    /// values of both list semaphores before and after.
    void receive_frame_pause();

    /// Points the endpoint at another producer's slot, never in the middle of a copy.
    ///
    /// @return 1, whatever became of the switch.
    int change_shm(const char* path) override;

    /// Posts "read done".
    void post_transmission();

    /// Posts "this consumer is present".
    void post_transmission_receiver_exist();

    /// Does nothing.
    void post_transmission_pause_receive();

    /// Waits for "frame ready", without limit; a signal handler ends the wait early (EINTR).
    void wait_transmission();
    bool time_wait_transmission(long ms);

protected:
    std::unique_ptr<zav_shm::Mutex> lock;      // guards the slot while copying or switching
    std::atomic<bool> pause_requested{false};  // cleared here, set by nobody in this library

private:
    bool copy_frame_out(STREAM_FRAME_FORMAT* frame);
    void print_pause_state(const char* when) const;
};
