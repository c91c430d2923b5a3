// SPDX-License-Identifier: Apache-2.0
#pragma once

// The two ends of a frame channel: the writing end and the reading end, each with a segment
// and the channel's semaphores. Concrete ends are the producer's and consumer's endpoints
// (endpoint.h) and the center's relay endpoints (relay_endpoint.h).
//
// A channel end holds its semaphores in one of two forms and never mixes them: the two named
// members `sem_up` and `sem_down`, or `sem_list` with three entries, which is the form that
// every client and relay uses (docs/protocol.md says who posts and who waits on each).
//
// Nothing here throws or crashes on a missing segment, a failed mapping, or a missing or failed
// semaphore: such a wait fails, such a post does nothing, such a value reads as -1.

#include <atomic>
#include <cstddef>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include "ipc/zav_sem.h"
#include "ipc/zav_shm.h"
#include "stream/frame_slot.h"

/// The writing end of a channel, whatever carries it.
class Stream_Distributor {
public:
    Stream_Distributor() = default;
    Stream_Distributor(const Stream_Distributor&) = delete;
    Stream_Distributor& operator=(const Stream_Distributor&) = delete;
    virtual ~Stream_Distributor() = default;

    virtual void start() = 0;
    virtual int distribute_frame(void* data, int len) = 0;
};

/// The reading end of a channel, whatever carries it.
class Stream_Receiver {
public:
    Stream_Receiver() = default;
    Stream_Receiver(const Stream_Receiver&) = delete;
    Stream_Receiver& operator=(const Stream_Receiver&) = delete;
    virtual ~Stream_Receiver() = default;

    virtual void start() = 0;
    virtual int receive_frame(void* buf, int len) = 0;
};

/// What both ends in shared memory own. Destruction unmaps the segment first, then closes
/// `sem_up`, `sem_down` and the list in index order; no kernel object is removed.
class SHM_Stream_End {
protected:
    SHM_Stream_End() = default;
    ~SHM_Stream_End();

    /// Entry `i` of `sem_list`, or null when there is none.
    SEM_CTRL* semaphore(std::size_t i) const;
    void open_semaphores(const std::string& src, const std::string& dst, const std::string& exist);
    void create_semaphores(const std::string& src, const std::string& dst,
                           const std::string& exist);
    void drain_semaphores();
    int value_at(int i) const;
    bool slot_is_mapped() const;

    static int value_of(const SEM_CTRL* semaphore);
    static void post_if_zero(SEM_CTRL* semaphore);
    static void wait_forever(SEM_CTRL* semaphore);

    /// Maps the segment and locks it into memory, so that copying a frame never faults.
    void open_slot(const std::string& segment, int oflag);
    void write_dump(std::ostream& out) const;

    std::unique_ptr<IPC_SHMEMORY> shm;
    std::unique_ptr<SEM_CTRL> sem_up;
    std::unique_ptr<SEM_CTRL> sem_down;
    std::vector<std::unique_ptr<SEM_CTRL>> sem_list;
};

/// The writing end of a channel in shared memory.
///
/// Threads  one at a time, except that any thread may read get_sem_wait_error().
class SHM_Stream_Distributor : public Stream_Distributor, protected SHM_Stream_End {
public:
    SHM_Stream_Distributor() = default;

    /// Does nothing.
    void start() override;

    /// Copies `len` bytes to the start of the slot, without any semaphore.
    ///
    /// @return `len`; 0 for null data, a negative length or an unmapped slot. Bytes that would
    ///         lie behind the mapping are not copied.
    int distribute_frame(void* data, int len) override;

    /// Waits up to `ms` milliseconds on `sem_down` and keeps the count of timeouts.
    ///
    /// @return 0 when taken, -1 otherwise (errno ETIMEDOUT, EINTR, EINVAL).
    virtual int time_wait(long ms);

    /// Timed waits in a row that ended by timeout. A success sets it to 0; an interrupted or
    /// failed wait leaves it.
    int get_sem_wait_error() const { return sem_wait_error; }

    int get_sem_up_value() const { return value_of(sem_up.get()); }
    int get_sem_down_value() const { return value_of(sem_down.get()); }

    /// Prints "Distributor (%d, %d)\n" with the values of `sem_up` and `sem_down`.
    void get_sem_value() const;

    /// Value of `sem_list[i]`; -1 when there is no such entry.
    int get_sem_value(int i) const { return value_at(i); }

    static void set_shm_root_path(const std::string& path);

    /// True when each semaphore in this end's list has the name of the other's at that index;
    /// an empty list therefore equals every other.
    bool operator==(const SHM_Stream_Distributor& other) const;

    friend std::ostream& operator<<(std::ostream& out, const SHM_Stream_Distributor& end);

protected:
    /// Timed wait on entry `i` of the list that keeps the count of timeouts.
    bool timed_wait_at(std::size_t i, long ms);

    std::atomic<int> sem_wait_error{0};  // the waiting thread writes, any thread reads

private:
    int counted_wait(SEM_CTRL* semaphore, long ms);
};

/// The reading end of a channel in shared memory.
class SHM_Stream_Receiver : public Stream_Receiver, protected SHM_Stream_End {
public:
    SHM_Stream_Receiver() = default;

    /// Takes at most one pending post from `sem_up` without waiting, then posts `sem_down` if
    /// its value is 0.
    void start() override;

    /// Copies `len` bytes from the start of the slot, without any semaphore. Bytes behind the
    /// mapping are not copied.
    ///
    /// @return the smaller of `len` and the segment's size; 0 for a null buffer, a negative
    ///         length, or an unmapped slot ("Get NULL mem_addr!!!" is printed).
    int receive_frame(void* buf, int len) override;

    /// Switches to another segment.
    ///
    /// @return a value of IPC_SHMEMORY::Change.
    virtual int change_shm(const char* path);

    /// Values of `sem_list[0]` and `sem_list[1]`; the reading end takes them from the list.
    int get_sem_up_value() const { return value_at(0); }
    int get_sem_down_value() const { return value_at(1); }

    /// Prints "Receiver (%d, %d)\n" with the values of `sem_up` and `sem_down`.
    void get_sem_value() const;
    int get_sem_value(int i) const { return value_at(i); }

    static void set_shm_root_path(const std::string& path);

    friend std::ostream& operator<<(std::ostream& out, const SHM_Stream_Receiver& end);

protected:
    bool timed_wait_at(std::size_t i, long ms);
};

/// Dumps: `sem_up` and a line end; the segment's path between two lines "**************" if
/// there is a segment; `sem_down` and a line end. A missing semaphore writes nothing.
std::ostream& operator<<(std::ostream& out, const SHM_Stream_Distributor& end);
std::ostream& operator<<(std::ostream& out, const SHM_Stream_Receiver& end);
