// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <iosfwd>
#include <list>
#include <memory>
#include <vector>

#include "stream/relay_counters.h"
#include "stream/relay_endpoint.h"
#include "stream/ticket_mutex.h"

namespace zav_shm {
class Relay_Thread;
}

/// One relay of the center: joins one producer channel to the consumer channels paired with it
/// and passes each frame's posts from the producer to the live consumers and back. It never
/// touches a frame: consumers map the producer's slot themselves, and the relay only orders who
/// may write and who may read.
///
/// Owner    the manager, which also owns the source and the writers: they must outlive the
///          relay or be taken out of it first.
/// Threads  one thread of its own (run), named "zav_relay". The list operations, the variant
///          cycle and the dump may be called from any thread; they and the cycle take `lock` in
///          the order of asking. A cycle holds it through its waits, so each of them waits up
///          to one cycle: 5 ms per writer, 30 ms, and 20 ms per live writer.
/// Errors   timeouts are normal outcomes. Nothing throws.
/// Crash    a dead or stopped consumer costs 5 ms per cycle, and 20 ms once if it died while
///          reading; a dead producer costs its consumers nothing but frames.
class SHM_Stream_Transmission {
public:
    SHM_Stream_Transmission();

    /// @param source  the producer's channel; may be null, then consumers are never served.
    explicit SHM_Stream_Transmission(ZAV_SHM_Stream_Transmission_Receiver* source);

    /// Ends the thread, if run() started one, and returns when it has left.
    ~SHM_Stream_Transmission();

    SHM_Stream_Transmission(const SHM_Stream_Transmission&) = delete;
    SHM_Stream_Transmission& operator=(const SHM_Stream_Transmission&) = delete;

    /// Starts the relay thread with this relay as the argument of `start_routine`, usually
    /// fun_transmission_stream.
    ///
    /// @return 0, or the error number of thread creation; EBUSY while a thread is running and
    ///         EINVAL for a null routine.
    int run(void* (*start_routine)(void*));

    /// Asks the thread to end and returns at once, so that many relays can be ended together.
    /// stop() also waits until it has left. A thread with a routine of its own, or one that is
    /// held in a wait because the clock was set back, is cancelled. Neither may be called from
    /// the relay thread itself.
    void request_stop();
    void stop();
    bool stop_requested() const { return stopping_; }

    /// Sends the relay thread a signal, whose handler has to be without SA_RESTART: the wait that
    /// the thread is in ends as if nobody had posted, and the next has a new deadline.
    ///
    /// @return true when the thread runs. Never waits for a cycle.
    bool interrupt_wait(int signal) const;

    /// What the relay has done so far; frames per consumer are counted by its writer. Any thread
    /// may read them.
    const zav_shm::Relay_Counters& counters() const { return counters_; }

    /// One relay cycle. With no writer in the list it sleeps 50 ms instead.
    ///
    /// @return 1 when consumers were present but no frame came within 30 ms; 0 otherwise.
    int transmission_frame();

    /// What the thread does instead while the list is empty: sleeps until somebody is inserted or
    /// the relay is to stop, a second at most.
    void wait_for_consumer();

    /// Resets `d` and appends it; if a writer with the same semaphores is already listed,
    /// resets that one and prints "Duplicate Distributor..." instead. Null is ignored.
    void insert_distributor(ZAV_SHM_Stream_Transmission_Distributor* d);

    /// True, after resetting it, when a listed writer has the same semaphores as `d`.
    bool duplicate_distributor(const ZAV_SHM_Stream_Transmission_Distributor* d);

    /// Takes `d` out of the list and resets it, also when it was not listed. The relay does not
    /// use `d` any more when this returns. Null is ignored.
    void delete_distributor(ZAV_SHM_Stream_Transmission_Distributor* d);
    int get_distributor_num();

    /// The start-flag variant of the cycle (relay_variant.cpp), which the relay thread does not
    /// use: a writer takes part once its consumer has posted "read done", and prints when it joins
    /// or is slow.
    void get_start_transmission_distributor_list(
        std::list<ZAV_SHM_Stream_Transmission_Distributor*>& out);
    int check_receiver_exist();
    void start_transmission();
    int distribute_frame();
    int distribute_frame(std::list<ZAV_SHM_Stream_Transmission_Distributor*>& list);

    friend std::ostream& operator<<(std::ostream& out, const SHM_Stream_Transmission& relay);

private:
    using Writer = ZAV_SHM_Stream_Transmission_Distributor;

    void find_live_writers() ZAV_SHM_REQUIRES(*lock);
    void collect_late_reads() ZAV_SHM_REQUIRES(*lock);
    int relay_one_frame() ZAV_SHM_REQUIRES(*lock);
    bool reset_duplicate_of(const Writer& d) ZAV_SHM_REQUIRES(*lock);
    bool join_if_reading(Writer& writer);
    void collect_started(std::list<Writer*>& out) ZAV_SHM_REQUIRES(*lock);
    static bool post_frame_ready(const std::list<Writer*>& list);

    ZAV_SHM_Stream_Transmission_Receiver* source;  // constant after construction; not owned
    std::unique_ptr<zav_shm::Ticket_Mutex> lock;   // held through waits

    // In insertion order, and those that are there in the current cycle; not owned.
    std::list<Writer*> distributor_list ZAV_SHM_GUARDED_BY(*lock);
    std::vector<Writer*> live_ ZAV_SHM_GUARDED_BY(*lock);

    zav_shm::Relay_Counters counters_;   // relay thread counts, any thread reads
    std::atomic<bool> stopping_{false};  // request_stop() writes, relay thread reads
    bool runs_own_body_ = true;          // run() writes, stop() reads: one thread
    std::unique_ptr<zav_shm::Relay_Thread> thread;
};

/// The relay's thread body: detaches the calling thread, then runs cycles of the relay `arg`
/// until the relay is told to stop.
void* fun_transmission_stream(void* arg);

/// Writes the source and a line end, then each writer and a line end.
std::ostream& operator<<(std::ostream& out, const SHM_Stream_Transmission& relay);
