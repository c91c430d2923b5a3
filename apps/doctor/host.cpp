// SPDX-License-Identifier: Apache-2.0
#include "apps/doctor/host.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <set>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "apps/centerd/configuration.h"
#include "apps/watch/collector.h"
#include "config/zav_shm_config.h"
#include "control/center_status.h"
#include "control/json_text.h"
#include "ipc/monotonic_clock.h"
#include "ipc/shared_memory_folder.h"
#include "stream/frame_slot.h"

namespace zav_shm::doctor {

namespace {

// Longer than the center's status is written anew, and than a reader may pause.
constexpr std::chrono::milliseconds between_looks{1200};

constexpr std::size_t participants_max = 1024;

std::int64_t wall_minus_steady_ns() {
    timespec wall{};
    timespec steady{};
    clock_gettime(CLOCK_MONOTONIC, &steady);
    clock_gettime(CLOCK_REALTIME, &wall);
    return (std::int64_t{wall.tv_sec} - steady.tv_sec) * ns_per_second + wall.tv_nsec -
           steady.tv_nsec;
}

std::string stream_text(const watch::Stream_Id& id) {
    return id.producer + "/" + std::to_string(id.channel) + "/" + std::to_string(id.stream);
}

// Which process it is for us that has this id for itself.
class Process_Finder {
public:
    std::optional<Process_Facts> find(pid_t own_id, std::string_view command) const {
        std::optional<Process_Facts> best;
        const auto [begin, end] = ids_.equal_range(own_id);
        for (auto id = begin; id != end; ++id) {
            auto facts = facts_of(id->second);
            if (facts && is_better(*facts, best, command)) {
                best = std::move(facts);
            }
        }
        return best;
    }

private:
    // Who has shared memory mapped; then by its name, where that is known; else one of our own PID
    // namespace.
    static bool is_better(const Process_Facts& one, const std::optional<Process_Facts>& other,
                          std::string_view command) {
        const auto rank = [command](const Process_Facts& facts) {
            const bool has_name = !command.empty() && facts.command.starts_with(command);
            return (facts.maps_shared_memory ? 4 : 0) + (has_name ? 2 : 0) +
                   (facts.has_own_pid_namespace ? 0 : 1);
        };
        return !other || rank(one) > rank(*other);
    }

    const std::multimap<pid_t, pid_t> ids_ = processes_by_own_id();
};

void look_at_center(Host& host) {
    const std::string& folder = host.request.folder;
    host.page = read_center_page(folder);
    host.is_center_alive = is_center_alive(folder);
    host.status = watch::read_center_file(center_status_path(folder));
    struct stat found {};
    if (stat(center_page_path(folder).c_str(), &found) == 0) {
        host.page_owner = found.st_uid;
    }
}

void look_for_other_centers(Host& host) {
    std::error_code error;
    std::filesystem::directory_iterator entry(shared_memory_folder, error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        std::error_code ignored;
        if (name != without_leading_slashes(host.request.folder) && entry->is_directory(ignored) &&
            is_center_alive(name)) {
            host.other_centers.push_back(name);
        }
    }
    std::sort(host.other_centers.begin(), host.other_centers.end());
}

// What a center of this machine was started with, where its path can be followed from here.
std::string configuration_of(const Host& host) {
    if (!host.request.configuration.empty() || !host.status || !host.is_center_alive) {
        return host.request.configuration;
    }
    const std::string path = text_at(host.status->content, "configuration");
    return path.starts_with('/') && access(path.c_str(), R_OK) == 0 ? path : std::string();
}

void load_configuration(Host& host) {
    const std::string path = configuration_of(host);
    if (path.empty()) {
        return;
    }
    ZAV_SHM_CONFIG config;
    if (const auto failed = centerd::load(path, config)) {
        host.configuration_problems = failed->lines;
        return;
    }
    host.inventory = std::make_unique<centerd::Inventory>(config);
}

void find_participants(Host& host) {
    const Process_Finder finder;
    std::set<std::pair<std::string, pid_t>> known;
    const auto add = [&](const std::string& role, std::uint32_t pid, const std::string& command) {
        const auto own_id = static_cast<pid_t>(pid);
        if (own_id > 0 && host.participants.size() < participants_max &&
            known.emplace(role, own_id).second) {
            host.participants.push_back({role, own_id, finder.find(own_id, command)});
        }
    };
    if (host.page && host.is_center_alive) {
        add("center", host.page->pid, "zav-shm-center");
    }
    const auto add_reader = [&](const watch::Consumer& consumer) {
        if (consumer.kind != watch::Consumer::Kind::fixed &&
            consumer.state != watch::Consumer::State::gone) {
            add("reader " + (consumer.name.empty() ? "(tap)" : consumer.name) + " of " +
                    stream_text(consumer.of),
                consumer.process.pid, consumer.process.command);
        }
    };
    for (const watch::Stream& stream : host.snapshot.streams) {
        if (stream.state == watch::Stream::State::live) {
            add("publisher of " + stream_text(stream.id), stream.writer.pid, stream.writer.command);
        }
        std::for_each(stream.consumers.begin(), stream.consumers.end(), add_reader);
    }
    std::for_each(host.snapshot.elsewhere.begin(), host.snapshot.elsewhere.end(), add_reader);
}

}  // namespace

std::string Host::segment_folder() const { return shared_memory_path(request.folder); }

std::uint64_t Host::greatest_segment() const {
    std::uint64_t greatest = 0;
    if (inventory) {
        for (const centerd::Shared_File& segment : inventory->segments) {
            greatest = std::max(greatest, segment.bytes);
        }
        return greatest;
    }
    if (!status) {
        return 0;
    }
    for (const Json::Value& name : list_at(member_of(status->content, "names"), "distributors")) {
        for (const Json::Value& stream : list_at(name, "streams")) {
            greatest = std::max<std::uint64_t>(greatest, count_at(stream, "page_size"));
        }
    }
    return greatest == 0 ? 0 : greatest + frame_header_bytes;
}

Host look_at_host(Request request) {
    Host host;
    host.request = std::move(request);
    watch::Collector collector(host.request.folder);
    collector.look();
    const std::int64_t before_ns = wall_minus_steady_ns();
    std::this_thread::sleep_for(between_looks);
    host.clock_step_ns = wall_minus_steady_ns() - before_ns;
    host.snapshot = collector.look();
    host.self = facts_of(getpid()).value_or(Process_Facts{});
    look_at_center(host);
    look_for_other_centers(host);
    load_configuration(host);
    find_participants(host);
    return host;
}

}  // namespace zav_shm::doctor
