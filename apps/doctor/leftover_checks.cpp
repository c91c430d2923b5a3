// SPDX-License-Identifier: Apache-2.0
//
// What killed processes have left: locks, segments, semaphores, histories, cards. Nothing is
// removed; every remedy says how to.
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <filesystem>
#include <set>
#include <string_view>
#include <system_error>

#include "apps/centerd/center_lock.h"
#include "apps/doctor/checks.h"
#include "apps/doctor/queues.h"
#include "control/json_text.h"
#include "ipc/ring_place.h"
#include "ipc/shared_memory_folder.h"

namespace zav_shm::doctor {

namespace {

using Names = std::set<std::string>;

struct Found_File {
    std::string path;
    std::string name;
    std::uint64_t bytes = 0;
    bool is_fresh = false;  // written within the last minute
};

std::vector<Found_File> files_in(const std::string& folder) {
    constexpr time_t fresh_s = 60;
    std::vector<Found_File> files;
    std::error_code error;
    std::filesystem::directory_iterator entry(folder, error);
    const auto now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        struct stat found {};
        if (lstat(entry->path().c_str(), &found) == 0 && S_ISREG(found.st_mode)) {
            files.push_back({entry->path().string(), entry->path().filename().string(),
                             static_cast<std::uint64_t>(found.st_size),
                             found.st_mtim.tv_sec + fresh_s > now});
        }
    }
    std::sort(files.begin(), files.end(),
              [](const Found_File& a, const Found_File& b) { return a.name < b.name; });
    return files;
}

// "CAM_LOOP_0_1" for every channel of these names; the streams of a name may be fewer than those
// for which the center makes objects, so all numbers up to the greatest of any name count.
Names channel_files(const Json::Value& names, const char* kind) {
    constexpr Json::UInt64 channels_max = 4096;
    Json::UInt64 streams = 0;
    for (const char* each : {"distributors", "receivers"}) {
        for (const Json::Value& name : list_at(names, each)) {
            for (const Json::Value& stream : list_at(name, "streams")) {
                streams = std::max(streams, count_at(stream, "stream") + 1);
            }
        }
    }
    Names found;
    for (const Json::Value& name : list_at(names, kind)) {
        const auto channels = std::min(count_at(name, "channels"), channels_max);
        for (Json::UInt64 channel = 0; channel < channels; ++channel) {
            for (Json::UInt64 stream = 0; stream < std::min(streams, channels_max); ++stream) {
                found.insert(channel_file_name(text_at(name, "name"), static_cast<int>(channel),
                                               static_cast<int>(stream)));
            }
        }
    }
    return found;
}

bool is_own_file(std::string_view name) { return name.starts_with("center_"); }

// Segments end in two numbers.
bool is_segment_name(const std::string& name) {
    const std::size_t last = name.find_last_not_of("0123456789");
    return last != std::string::npos && last + 1 < name.size() && name[last] == '_' && last > 0 &&
           std::isdigit(static_cast<unsigned char>(name[last - 1])) != 0;
}

void check_segments(const Host& host, Findings& findings) {
    const Names configured =
        host.is_center_alive && host.status
            ? channel_files(member_of(host.status->content, "names"), "distributors")
            : Names();
    std::uint64_t bytes = 0;
    std::size_t count = 0;
    for (const Found_File& file : files_in(host.segment_folder())) {
        if (is_own_file(file.name) || !is_segment_name(file.name)) {
            continue;
        }
        if (!host.is_center_alive) {
            bytes += file.bytes;
            ++count;
        } else if (!configured.empty() && !configured.contains(file.name)) {
            findings.push_back({Severity::warning, "stale_segment", file.path,
                                "belongs to no stream of the center's configuration and takes " +
                                    std::to_string(file.bytes) + " bytes",
                                "rm '" + file.path + "'"});
        }
    }
    if (count > 0) {
        findings.push_back({Severity::note, "stale_segment", host.segment_folder(),
                            "holds " + std::to_string(count) + " segments of " +
                                std::to_string(bytes) + " bytes, and no center runs",
                            "start zav-shm-centerd, which uses them again, or end it with --clean "
                            "next time"});
    }
}

bool is_unfinished_semaphore(const std::string& name) {
    constexpr std::size_t length = 10;  // "sem." and six random letters
    return name.size() == length && name.starts_with("sem.") &&
           std::all_of(name.begin() + 4, name.end(),
                       [](unsigned char c) { return std::isalnum(c) != 0; });
}

bool is_channel_semaphore(const std::string& name) {
    return (name.starts_with("sem.SRC_") || name.starts_with("sem.DST_")) &&
           name.find("_SEM_") != std::string::npos;
}

void check_semaphores(const Host& host, Findings& findings) {
    std::size_t count = 0;
    for (const Found_File& file : files_in(shared_memory_folder)) {
        if (is_unfinished_semaphore(file.name) && !file.is_fresh) {
            findings.push_back({Severity::warning, "stale_semaphore", file.path,
                                "is a semaphore that a killed process was just making",
                                "rm '" + file.path +
                                    "'; zav-shm-centerd removes its own at its "
                                    "start"});
        }
        count += is_channel_semaphore(file.name) ? 1U : 0U;
    }
    if (count > 0 && !host.is_center_alive && host.other_centers.empty()) {
        findings.push_back(
            {Severity::note, "stale_semaphore", shared_memory_folder,
             "holds " + std::to_string(count) + " semaphores of channels, and no center runs",
             "start zav-shm-centerd, which makes them anew, or end it with --clean "
             "next time"});
    }
}

// The list of locks is read only where a lock may be stale: reading it may take seconds.
void check_lock(const std::string& path, Findings& findings) {
    struct stat found {};
    if (lstat(path.c_str(), &found) == 0 && !centerd::lock_holder(path)) {
        findings.push_back({Severity::note, "stale_lock", path,
                            "is held by no process that is visible from here, and keeps centers "
                            "of other users than " +
                                std::to_string(found.st_uid) + " away",
                            "start zav-shm-centerd as that user again, or rm '" + path + "'"});
    }
}

void check_locks(const Host& host, Findings& findings) {
    if (!host.is_center_alive) {
        check_lock(host.segment_folder() + "/center_lock", findings);
    }
    const auto keys = keys_of_this_process();
    for (const key_t key : keys_with_a_lock()) {
        const bool is_ours = host.is_center_alive && keys && key == keys->requests;
        if (!is_ours) {
            check_lock(shared_memory_path("zav_shm_queues_" + key_text(key)), findings);
        }
    }
}

std::string stream_text(const watch::Stream_Id& id) {
    return id.producer + "/" + std::to_string(id.channel) + "/" + std::to_string(id.stream);
}

void check_rings(const Host& host, Findings& findings) {
    for (const watch::Stream& stream : host.snapshot.streams) {
        if (stream.state == watch::Stream::State::left) {
            findings.push_back(
                {Severity::warning, "stale_ring", "history of " + stream_text(stream.id),
                 "its publisher, process " + std::to_string(stream.writer.pid) + ", was killed; " +
                     std::to_string(stream.history.frames) + " frames can still be read, " +
                     std::to_string(stream.history.bytes_of_room) + " bytes are taken",
                 "start the publisher again, which replaces it, or rm '" +
                     ring_path(rings_folder(host.request.folder), stream.id.producer,
                               stream.id.channel, stream.id.stream) +
                     "'"});
        }
    }
}

void check_cards(const Host& host, Findings& findings) {
    const auto check = [&](const watch::Consumer& consumer) {
        if (consumer.state != watch::Consumer::State::gone || consumer.card.empty()) {
            return;
        }
        const std::string path = rings_folder(host.request.folder) + "/" + consumer.card;
        findings.push_back({host.is_center_alive ? Severity::note : Severity::warning, "stale_card",
                            path,
                            "its reader " + (consumer.name.empty() ? "(tap)" : consumer.name) +
                                " of " + stream_text(consumer.of) + ", process " +
                                std::to_string(consumer.process.pid) + ", was killed",
                            host.is_center_alive ? "nothing: the center removes it within seconds"
                                                 : "start zav-shm-centerd, or rm '" + path + "'"});
    };
    for (const watch::Stream& stream : host.snapshot.streams) {
        std::for_each(stream.consumers.begin(), stream.consumers.end(), check);
    }
    std::for_each(host.snapshot.elsewhere.begin(), host.snapshot.elsewhere.end(), check);
}

}  // namespace

Findings check_leftovers(const Host& host) {
    Findings findings;
    check_locks(host, findings);
    check_segments(host, findings);
    check_semaphores(host, findings);
    check_rings(host, findings);
    check_cards(host, findings);
    if (findings.empty()) {
        findings.push_back(well("leftovers", shared_memory_folder, "holds nothing that is stale"));
    }
    return findings;
}

}  // namespace zav_shm::doctor
