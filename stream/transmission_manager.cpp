// SPDX-License-Identifier: Apache-2.0
//
// Two kinds of locks, so that a command waits for the relay it is about and for no other:
// `maps_` is held for map operations alone, and each writer has a lock that is held while that
// writer is taken into a relay or out of it. Order: a writer's lock, then a relay's, then `maps_`.

#include "stream/transmission_manager.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <memory>
#include <vector>

#include "ipc/standard_output.h"
#include "stream/frame_slot.h"

namespace {

using Key = Shm_Stream_Transmission_Index;
using Pair_Key = Shm_Stream_Transmission_Pair_Index;

constexpr mode_t folder_mode = 0700;
constexpr unsigned segment_mode = 0600;

// A consumer is idle once it has missed more waits in a row than this.
constexpr int idle_timeouts = 9;

// Keys with null values that requests may leave behind in each map.
constexpr std::ptrdiff_t remembered_max = 256;

void make_folder(const char* root, const char* folder) {
    std::array<char, 256> path{};
    mkdir(root, folder_mode);
    std::snprintf(path.data(), path.size(), "%s/%s", root, folder);
    mkdir(path.data(), folder_mode);
    std::printf("Mkdir %s\n", path.data());
}

// A size that an int cannot hold becomes negative, which a segment refuses.
int segment_bytes(int page_size) {
    const auto header_bytes = static_cast<std::int64_t>(zav_shm::frame_header_bytes);
    const std::int64_t bytes = page_size + header_bytes;
    return page_size < 0 || bytes > std::numeric_limits<int>::max() ? -1 : static_cast<int>(bytes);
}

Key consumer_key(const Pair_Key& pair) { return {pair.name, pair.channel, pair.stream}; }
Key producer_key(const Pair_Key& pair) { return {pair.pair_name, pair.channel, pair.stream}; }

void print_insert_failure(const char* what, const Key& key) {
    zav_shm::standard_output() << what << key.name << ", " << key.channel << ", " << key.stream
                               << " Fail\n";
}

template <class Map>
std::ptrdiff_t null_entries(const Map& map) {
    return std::count_if(map.begin(), map.end(),
                         [](const auto& entry) { return entry.second == nullptr; });
}

template <class Map, class Lookup_Key>
auto value_or_null(const Map& map, const Lookup_Key& key) -> typename Map::mapped_type {
    const auto found = map.find(key);
    return found == map.end() ? nullptr : found->second;
}

// What the maps own.
template <class Object>
void destroy(Object*& object) {
    const std::unique_ptr<Object> owner(object);
    object = nullptr;
}

}  // namespace

// ---- life ----

SHM_Stream_Transmission_Manager::SHM_Stream_Transmission_Manager(const ZAV_SHM_CONFIG* config) {
    if (config == nullptr) {
        return;
    }
    create_shm_folder(config);
    create_sem_folder(config);
    IPC_SHM_CTRL_INFO::set_shm_root_path(config->shm_path);
    IPC_SHM_CTRL_INFO::set_sem_root_path(config->sem_path);
    create_src_stream_transmission(config);
    create_stream_transmission();
    start_all_stream_transmission(fun_transmission_stream);
    create_dst_stream_transmission(config);
}

SHM_Stream_Transmission_Manager::~SHM_Stream_Transmission_Manager() {
    delete_dst_stream_transmission();
    delete_stream_transmission();
    delete_src_stream_transmission();
    pair_map.clear();
}

// ---- construction ----

void SHM_Stream_Transmission_Manager::create_shm_folder(const ZAV_SHM_CONFIG* config) {
    if (config != nullptr) {
        make_folder(config->root_path, config->shm_path);
    }
}

void SHM_Stream_Transmission_Manager::create_sem_folder(const ZAV_SHM_CONFIG* config) {
    if (config != nullptr) {
        make_folder(config->root_path, config->sem_path);
    }
}

void SHM_Stream_Transmission_Manager::create_shm(const Key& key, int page_size) {
    const IPC_SHM_SRC_CTRL_INFO names(key);
    zav_shm::standard_output() << "Create SHM at " << names.shm_path << '\n';
    const IPC_SHMEMORY segment(names.shm_path.c_str(), O_CREAT | O_RDWR, segment_mode,
                               segment_bytes(page_size));
    if (segment.is_mapped()) {
        mlock(segment.mem_addr, segment.size);
    }
}

void SHM_Stream_Transmission_Manager::create_receiver(const Key& key) {
    const zav_shm::Guard guard(maps_);
    if (receiver_map.contains(key)) {
        print_insert_failure("Insert Receiver ", key);
        return;
    }
    const IPC_SHM_SRC_CTRL_INFO names(key);
    receiver_map.emplace(key, std::make_unique<Reader>(&names).release());
}

void SHM_Stream_Transmission_Manager::create_distributor(const Key& key) {
    const zav_shm::Guard guard(maps_);
    if (distributor_map.contains(key)) {
        print_insert_failure("Insert Distributor ", key);
        return;
    }
    const IPC_SHM_DST_CTRL_INFO names(key);
    distributor_map.emplace(key, std::make_unique<Writer>(&names).release());
}

void SHM_Stream_Transmission_Manager::create_transmission(Reader* reader) {
    const zav_shm::Guard guard(maps_);
    if (transmission_map.contains(reader)) {
        zav_shm::standard_output() << "Insert Reciver Transmission Fail\n";
        return;
    }
    transmission_map.emplace(reader, std::make_unique<Relay>(reader).release());
}

// Every channel of every name gets every stream: a record's own stream list has no part in this.
void SHM_Stream_Transmission_Manager::create_src_stream_transmission(const ZAV_SHM_CONFIG* config) {
    if (config == nullptr) {
        return;
    }
    for (const auto* const record : config->distributors()) {
        for (int channel = 0; channel < record->channel; ++channel) {
            int stream = 0;
            for (const auto* const stream_record : config->streams()) {
                const Key key(record->name, channel, stream++);
                create_shm(key, stream_record->page_size);
                create_receiver(key);
            }
        }
    }
}

void SHM_Stream_Transmission_Manager::create_dst_stream_transmission(const ZAV_SHM_CONFIG* config) {
    if (config == nullptr) {
        return;
    }
    const int streams = static_cast<int>(config->streams().size());
    for (const auto* const record : config->receivers()) {
        for (int channel = 0; channel < record->channel; ++channel) {
            for (int stream = 0; stream < streams; ++stream) {
                create_distributor(Key(record->name, channel, stream));
            }
        }
    }
}

void SHM_Stream_Transmission_Manager::create_stream_transmission() {
    for (const auto& [key, reader] : receiver_map) {
        if (reader != nullptr) {
            create_transmission(reader);
        }
    }
}

void SHM_Stream_Transmission_Manager::start_stream_transmission(Relay* relay,
                                                                void* (*start_routine)(void*)) {
    if (relay != nullptr) {
        relay->run(start_routine);
    }
}

void SHM_Stream_Transmission_Manager::start_all_stream_transmission(void* (*start_routine)(void*)) {
    for (const auto& [reader, relay] : transmission_map) {
        start_stream_transmission(relay, start_routine);
    }
}

// ---- lookups ----

SHM_Stream_Transmission_Manager::Reader*& SHM_Stream_Transmission_Manager::get_receiver(
    const Key& key) {
    const zav_shm::Guard guard(maps_);
    return receiver_map[key];
}

SHM_Stream_Transmission_Manager::Reader*& SHM_Stream_Transmission_Manager::get_receiver(
    const Pair_Key& pair) {
    return get_receiver(producer_key(pair));
}

SHM_Stream_Transmission_Manager::Writer*& SHM_Stream_Transmission_Manager::get_distributor(
    const Key& key) {
    const zav_shm::Guard guard(maps_);
    return distributor_map[key];
}

SHM_Stream_Transmission_Manager::Writer*& SHM_Stream_Transmission_Manager::get_distributor(
    const Pair_Key& pair) {
    return get_distributor(consumer_key(pair));
}

SHM_Stream_Transmission_Manager::Relay*& SHM_Stream_Transmission_Manager::get_transmission(
    const Key& key) {
    const zav_shm::Guard guard(maps_);
    return transmission_map[receiver_map[key]];
}

SHM_Stream_Transmission_Manager::Relay*& SHM_Stream_Transmission_Manager::get_transmission(
    const Pair_Key& pair) {
    return get_transmission(producer_key(pair));
}

// ---- operation ----

void SHM_Stream_Transmission_Manager::add_distributor(const Pair_Key& pair) {
    const Route route = route_of(pair);
    if (route.relay == nullptr || route.writer == nullptr) {
        return;
    }
    const zav_shm::Guard pairing(pairing_lock_of(route.writer));
    route.relay->insert_distributor(route.writer);
    const zav_shm::Guard guard(maps_);
    pair_map.emplace(route.writer, route.reader);
}

void SHM_Stream_Transmission_Manager::remove_distributor(const Key& key) {
    Writer* const writer = writer_of(key);
    if (writer == nullptr) {
        return;
    }
    const zav_shm::Guard pairing(pairing_lock_of(writer));
    Reader* const reader = paired_reader(writer);
    Relay* relay = nullptr;
    if (reader == nullptr || find_relay(reader, relay) != Relay_State::present) {
        return;
    }
    unpair(writer, relay);
}

bool SHM_Stream_Transmission_Manager::is_paired(const Key& key) const {
    const zav_shm::Guard guard(maps_);
    return value_or_null(pair_map, value_or_null(distributor_map, key)) != nullptr;
}

// Walks a copy: the relays are waited for one by one, and commands go on meanwhile. Whatever was
// unpaired or paired anew since is left alone.
void SHM_Stream_Transmission_Manager::kick_idle_distributor(bool kick) {
    if (!kick) {
        return;
    }
    std::map<Writer*, Reader*> pairs;
    {
        const zav_shm::Guard guard(maps_);
        pairs = pair_map;
    }
    for (const auto& [writer, reader] : pairs) {
        if (writer == nullptr || reader == nullptr) {
            continue;
        }
        const zav_shm::Guard pairing(pairing_lock_of(writer));
        if (paired_reader(writer) != reader || writer->get_sem_wait_error() <= idle_timeouts) {
            continue;
        }
        Relay* relay = nullptr;
        const Relay_State state = find_relay(reader, relay);
        if (state == Relay_State::null) {
            return;
        }
        if (state == Relay_State::present) {
            unpair(writer, relay);
        }
    }
}

// The documented lookups leave unknown keys behind; beyond the limit they are only looked for.
SHM_Stream_Transmission_Manager::Route SHM_Stream_Transmission_Manager::route_of(
    const Pair_Key& pair) {
    const zav_shm::Guard guard(maps_);
    const Key producer = producer_key(pair);
    const Key consumer = consumer_key(pair);
    if (may_remember()) {
        receiver_map.try_emplace(producer, nullptr);
    }
    Route route;
    route.reader = value_or_null(receiver_map, producer);
    route.relay = transmission_map.try_emplace(route.reader, nullptr).first->second;
    if (route.relay != nullptr && may_remember()) {
        distributor_map.try_emplace(consumer, nullptr);
    }
    route.writer = value_or_null(distributor_map, consumer);
    return route;
}

SHM_Stream_Transmission_Manager::Writer* SHM_Stream_Transmission_Manager::writer_of(
    const Key& key) {
    const zav_shm::Guard guard(maps_);
    if (may_remember()) {
        distributor_map.try_emplace(key, nullptr);
    }
    return value_or_null(distributor_map, key);
}

bool SHM_Stream_Transmission_Manager::may_remember() const {
    return null_entries(receiver_map) < remembered_max &&
           null_entries(distributor_map) < remembered_max;
}

SHM_Stream_Transmission_Manager::Relay_State SHM_Stream_Transmission_Manager::find_relay(
    Reader* reader, Relay*& relay) {
    const zav_shm::Guard guard(maps_);
    const auto found = transmission_map.find(reader);
    if (found == transmission_map.end()) {
        return Relay_State::absent;
    }
    relay = found->second;
    return relay == nullptr ? Relay_State::null : Relay_State::present;
}

SHM_Stream_Transmission_Manager::Reader* SHM_Stream_Transmission_Manager::paired_reader(
    Writer* writer) {
    const zav_shm::Guard guard(maps_);
    return value_or_null(pair_map, writer);
}

zav_shm::Mutex& SHM_Stream_Transmission_Manager::pairing_lock_of(Writer* writer) {
    const zav_shm::Guard guard(maps_);
    return pairing_[writer];
}

void SHM_Stream_Transmission_Manager::unpair(Writer* writer, Relay* relay) {
    relay->delete_distributor(writer);
    const zav_shm::Guard guard(maps_);
    pair_map.erase(writer);
}

// ---- for the host ----

int SHM_Stream_Transmission_Manager::interrupt_waits(int signal) const {
    const zav_shm::Guard guard(maps_);
    return static_cast<int>(std::count_if(
        transmission_map.begin(), transmission_map.end(), [signal](const auto& entry) {
            return entry.second != nullptr && entry.second->interrupt_wait(signal);
        }));
}

std::vector<zav_shm::Relay_Snapshot> SHM_Stream_Transmission_Manager::snapshot() const {
    std::vector<zav_shm::Relay_Snapshot> relays;
    std::map<const Reader*, std::size_t> place_of;
    const zav_shm::Guard guard(maps_);
    for (const auto& [key, reader] : receiver_map) {
        const Relay* const relay = value_or_null(transmission_map, reader);
        if (relay != nullptr) {
            place_of.emplace(reader, relays.size());
            relays.push_back(zav_shm::snapshot_of(key, relay->counters()));
        }
    }
    for (const auto& [key, writer] : distributor_map) {
        const auto place = place_of.find(value_or_null(pair_map, writer));
        if (writer != nullptr && place != place_of.end()) {
            relays[place->second].consumers.push_back({key.name, key.channel, key.stream,
                                                       writer->frames_relayed(),
                                                       writer->get_sem_wait_error()});
        }
    }
    return relays;
}

// ---- tear-down ----

// All are asked first, so that they end their cycles at the same time.
void SHM_Stream_Transmission_Manager::stop_relays() {
    for (const auto& [reader, relay] : transmission_map) {
        if (relay != nullptr) {
            relay->request_stop();
        }
    }
    for (const auto& [reader, relay] : transmission_map) {
        if (relay != nullptr) {
            relay->stop();
        }
    }
}

void SHM_Stream_Transmission_Manager::delete_dst_stream_transmission() {
    stop_relays();
    for (const auto& [writer, reader] : pair_map) {
        Relay* const relay = value_or_null(transmission_map, reader);
        if (relay != nullptr) {
            relay->delete_distributor(writer);
        }
    }
    pair_map.clear();
    for (auto& [key, writer] : distributor_map) {
        destroy(writer);
    }
    distributor_map.clear();
    pairing_.clear();
}

void SHM_Stream_Transmission_Manager::delete_stream_transmission() {
    for (const auto& [key, reader] : receiver_map) {
        delete_transmission(reader);
    }
    transmission_map.clear();
}

void SHM_Stream_Transmission_Manager::delete_transmission(Reader* reader) {
    const auto found = transmission_map.find(reader);
    if (found != transmission_map.end()) {
        destroy(found->second);
    }
}

void SHM_Stream_Transmission_Manager::delete_src_stream_transmission() {
    stop_relays();
    for (auto& [key, reader] : receiver_map) {
        destroy(reader);
    }
    receiver_map.clear();
}

// ---- dump ----

// Copied first: each relay is printed under its own lock, which may have to be waited for.
std::ostream& operator<<(std::ostream& out, const SHM_Stream_Transmission_Manager& manager) {
    std::vector<Key> producers;
    std::vector<const SHM_Stream_Transmission*> relays;
    std::vector<Key> consumers;
    {
        const zav_shm::Guard guard(manager.maps_);
        for (const auto& [key, reader] : manager.receiver_map) {
            producers.push_back(key);
        }
        for (const auto& [reader, relay] : manager.transmission_map) {
            if (relay != nullptr) {
                relays.push_back(relay);
            }
        }
        for (const auto& [key, writer] : manager.distributor_map) {
            consumers.push_back(key);
        }
    }
    out << "======== Distributor =======\n";
    for (const Key& key : producers) {
        out << key << '\n';
    }
    out << "======== Transmission ========\n";
    for (const auto* const relay : relays) {
        out << *relay << '\n';
    }
    out << "======== Receiver =======\n";
    for (const Key& key : consumers) {
        out << key << '\n';
    }
    return out;
}
