// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <iosfwd>
#include <map>
#include <vector>

#include "config/zav_shm_config.h"
#include "ipc/annotated_mutex.h"
#include "stream/channel_key.h"
#include "stream/relay.h"
#include "stream/relay_endpoint.h"
#include "stream/relay_snapshot.h"

/// The center's owner of every channel and relay: built from the configuration, it makes one
/// segment, one reader and one relay with its thread for each producer channel, and one writer for
/// each consumer channel; afterwards consumers are paired with producers and unpaired.
///
/// Owner    owns readers, writers and relays. Segments and semaphores outlive it.
/// Threads  any thread may pair, unpair, kick, dump, interrupt and take a snapshot. The maps have a
///          lock that is never held while a relay is waited for; pairing, unpairing and kicking of
///          one consumer exclude each other. Each waits for its own relay alone, one cycle at most.
///          Construction and tear-down belong to one thread.
/// Errors   unknown keys are ignored quietly; what could not be created shows as a channel that
///          looks idle. Nothing throws.
/// Crash    the next center makes all semaphores anew and uses the segments again.
class SHM_Stream_Transmission_Manager {
public:
    using Reader = ZAV_SHM_Stream_Transmission_Receiver;
    using Writer = ZAV_SHM_Stream_Transmission_Distributor;
    using Relay = SHM_Stream_Transmission;
    using Key = Shm_Stream_Transmission_Index;
    using Pair_Key = Shm_Stream_Transmission_Pair_Index;

    /// Builds everything and starts the relays' threads. A null configuration makes nothing.
    explicit SHM_Stream_Transmission_Manager(const ZAV_SHM_CONFIG* config);

    /// Ends all relay threads and waits until they have left, then frees writers, relays and
    /// readers.
    ~SHM_Stream_Transmission_Manager();

    SHM_Stream_Transmission_Manager(const SHM_Stream_Transmission_Manager&) = delete;
    SHM_Stream_Transmission_Manager& operator=(const SHM_Stream_Transmission_Manager&) = delete;

    // ---- construction, step by step: one thread alone, so without the lock of the maps ----

    void create_shm_folder(const ZAV_SHM_CONFIG* config);
    void create_sem_folder(const ZAV_SHM_CONFIG* config);

    /// @param page_size  bytes of the largest payload; the segment is 128 bytes longer. One that
    ///                   is negative or makes no valid size is refused by the segment.
    void create_shm(const Key& key, int page_size);

    /// Make the reader or writer of a channel. A second one of the same key is not made and is
    /// reported: making it would replace the semaphores under the first.
    void create_receiver(const Key& key);
    void create_distributor(const Key& key);
    void create_transmission(Reader* reader);
    void create_src_stream_transmission(const ZAV_SHM_CONFIG* config);
    void create_dst_stream_transmission(const ZAV_SHM_CONFIG* config);
    void create_stream_transmission() ZAV_SHM_UNCHECKED;
    void start_stream_transmission(Relay* relay, void* (*start_routine)(void*));
    void start_all_stream_transmission(void* (*start_routine)(void*)) ZAV_SHM_UNCHECKED;

    // ---- lookups: the slot of a key, made with a null value when the key is unknown ----

    Reader*& get_receiver(const Key& key);
    Reader*& get_receiver(const Pair_Key& pair);
    Writer*& get_distributor(const Key& key);
    Writer*& get_distributor(const Pair_Key& pair);
    Relay*& get_transmission(const Key& key);
    Relay*& get_transmission(const Pair_Key& pair);

    // ---- operation ----

    /// Relays the frames of the producer named in `pair` to the consumer named in it. Unknown
    /// names are remembered with null values, as by the lookups, up to a limit: requests of
    /// clients cannot make the maps grow without end.
    void add_distributor(const Pair_Key& pair);

    /// Ends the relaying to a consumer; its writer is kept for the next pairing.
    void remove_distributor(const Key& key);

    /// True when frames are relayed to this consumer.
    bool is_paired(const Key& key) const;

    /// With `kick`, unpairs every consumer that has missed 10 waits in a row or more.
    void kick_idle_distributor(bool kick);

    // ---- for the host ----

    /// Ends the wait that each relay thread is in by sending it `signal`, for which the process
    /// has a handler without SA_RESTART, and which the relay threads do not block.
    ///
    /// For clocks that were set: a wait ends at a moment of the wall clock, so that a step back of
    /// an hour holds a relay for an hour. A signal that arrives between the reading of the clock
    /// and the wait has no effect; hence repeat it. An interrupted wait is no timeout, but may
    /// cost its consumers a frame.
    ///
    /// @return how many relay threads run; signal 0 only counts them. Never waits for a cycle.
    int interrupt_waits(int signal) const;

    /// What each relay does, in the order of the producer channels' keys, with its consumers in the
    /// order of theirs. Never waits for a cycle. Each number is right by itself, not in step with
    /// the others.
    std::vector<zav_shm::Relay_Snapshot> snapshot() const;

    // ---- tear-down, step by step: one thread alone; relays are stopped before anything is freed

    void delete_dst_stream_transmission() ZAV_SHM_UNCHECKED;
    void delete_stream_transmission() ZAV_SHM_UNCHECKED;
    void delete_transmission(Reader* reader) ZAV_SHM_UNCHECKED;
    void delete_src_stream_transmission() ZAV_SHM_UNCHECKED;

    friend std::ostream& operator<<(std::ostream& out,
                                    const SHM_Stream_Transmission_Manager& manager);

protected:
    // Never held while a relay is waited for; taken last.
    mutable zav_shm::Mutex maps_;

    // The first three own what they point to.
    std::map<Key, Reader*> receiver_map ZAV_SHM_GUARDED_BY(maps_);
    std::map<Key, Writer*> distributor_map ZAV_SHM_GUARDED_BY(maps_);
    std::map<Reader*, Relay*> transmission_map ZAV_SHM_GUARDED_BY(maps_);
    std::map<Writer*, Reader*> pair_map ZAV_SHM_GUARDED_BY(maps_);

private:
    struct Route {
        Reader* reader = nullptr;
        Relay* relay = nullptr;
        Writer* writer = nullptr;
    };
    enum class Relay_State { absent, null, present };

    Route route_of(const Pair_Key& pair);
    Writer* writer_of(const Key& key);
    Relay_State find_relay(Reader* reader, Relay*& relay);
    Reader* paired_reader(Writer* writer);
    zav_shm::Mutex& pairing_lock_of(Writer* writer);
    bool may_remember() const ZAV_SHM_REQUIRES(maps_);
    void unpair(Writer* writer, Relay* relay);
    void stop_relays() ZAV_SHM_UNCHECKED;

    // Each for the pairing of one writer, held through waits; taken before that of a relay.
    std::map<Writer*, zav_shm::Mutex> pairing_ ZAV_SHM_GUARDED_BY(maps_);
};

/// Writes the keys of the producer channels, the relays, and the keys of the consumer channels.
std::ostream& operator<<(std::ostream& out, const SHM_Stream_Transmission_Manager& manager);
