// SPDX-License-Identifier: Apache-2.0
//
// /dev/shm: what is mounted there, who may use it, and what it still holds.
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "apps/centerd/room.h"
#include "apps/doctor/checks.h"
#include "ipc/shared_memory_folder.h"

namespace zav_shm::doctor {

namespace {

constexpr mode_t wanted_mode = 01777;

// Below these, somebody's next file fails soon. Where the need is known it counts instead.
constexpr unsigned least_percent = 5;

std::string octal(mode_t mode) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%04o", static_cast<unsigned>(mode));
    return text.data();
}

Finding finding(Severity severity, const char* check, std::string seen, std::string remedy) {
    return {severity, check, shared_memory_folder, std::move(seen), std::move(remedy)};
}

void check_mount(const struct statvfs& room, Findings& findings) {
    struct statfs kind {};
    statfs(shared_memory_folder, &kind);
    const auto magic = static_cast<unsigned long>(kind.f_type);
    if (magic != TMPFS_MAGIC && magic != RAMFS_MAGIC) {
        findings.push_back(finding(Severity::error, "shm_mount",
                                   "is no tmpfs: frames would go to a disk, or nowhere",
                                   "mount -t tmpfs -o mode=1777 tmpfs /dev/shm"));
    } else if (room.f_blocks == 0) {
        findings.push_back(finding(Severity::note, "shm_mount",
                                   "has no limit: what is written there can take all memory",
                                   "mount -o remount,size=50% /dev/shm"));
    }
    if ((room.f_flag & ST_RDONLY) != 0) {
        findings.push_back(finding(Severity::error, "shm_mount", "is mounted read-only",
                                   "mount -o remount,rw /dev/shm"));
    }
}

void check_mode(const struct stat& folder, Findings& findings) {
    const mode_t mode = folder.st_mode & 07777U;
    if (mode == wanted_mode) {
        return;
    }
    const bool is_closed = (mode & 0003U) != 0003U;
    findings.push_back(finding(is_closed ? Severity::warning : Severity::note, "shm_mode",
                               "has the mode " + octal(mode) + " instead of 1777: " +
                                   (is_closed ? "only some users can make and find segments"
                                              : "everybody can remove the files of others"),
                               "chmod 1777 /dev/shm"));
}

std::string need_text(std::uint64_t available, std::uint64_t needed, const char* unit,
                      const char* what) {
    return "has " + std::to_string(available) + " " + unit + " left, " + std::to_string(needed) +
           " are needed " + what;
}

// A center that runs has made its part already.
void check_need(const Host& host, Findings& findings) {
    const auto& inventory = *host.inventory;
    const auto room = host.is_center_alive ? centerd::Room::of_clients(inventory)
                                           : centerd::Room::for_start_of(inventory);
    const auto lacks = [&](Severity severity, std::uint64_t available, std::uint64_t needed,
                           const char* unit, const char* option, const char* what) {
        if (needed > available) {
            findings.push_back(finding(severity, "shm_room",
                                       need_text(available, needed, unit, what),
                                       std::string("mount -o remount,") + option +
                                           " /dev/shm, with a greater number, "
                                           "or make fewer or smaller streams"));
            return true;
        }
        return false;
    };
    const char* const start = "to start a center";
    const char* const all = "when all publishers and subscribers come";
    if (!lacks(Severity::error, room.available_bytes, room.needed_bytes, "bytes", "size=BYTES",
               start)) {
        lacks(Severity::warning, room.available_bytes, room.needed_bytes + room.ring_bytes, "bytes",
              "size=BYTES", all);
    }
    if (!lacks(Severity::error, room.available_files, room.needed_files, "files (inodes)",
               "nr_inodes=NUMBER", start)) {
        lacks(Severity::warning, room.available_files, room.needed_files + room.ring_files,
              "files (inodes)", "nr_inodes=NUMBER", all);
    }
}

void check_rest(const struct statvfs& room, Findings& findings) {
    const auto is_short = [](std::uint64_t left, std::uint64_t all) {
        return all != 0 && left * 100 < all * least_percent;
    };
    if (is_short(room.f_bavail, room.f_blocks)) {
        findings.push_back(finding(
            room.f_bavail == 0 ? Severity::error : Severity::warning, "shm_room",
            "is full: " + std::to_string(std::uint64_t{room.f_bavail} * room.f_frsize) + " of " +
                std::to_string(std::uint64_t{room.f_blocks} * room.f_frsize) + " bytes left",
            "remove what nobody needs (du -a /dev/shm), or mount -o remount,size=BYTES "
            "/dev/shm"));
    }
    if (is_short(room.f_favail, room.f_files)) {
        findings.push_back(
            finding(room.f_favail == 0 ? Severity::error : Severity::warning, "shm_room",
                    "is full: " + std::to_string(room.f_favail) + " of " +
                        std::to_string(room.f_files) + " files (inodes) left",
                    "remove what nobody needs, or mount -o remount,nr_inodes=NUMBER /dev/shm"));
    }
}

}  // namespace

Findings check_shared_memory(const Host& host) {
    struct stat folder {};
    struct statvfs room {};
    if (stat(shared_memory_folder, &folder) != 0 || !S_ISDIR(folder.st_mode) ||
        statvfs(shared_memory_folder, &room) != 0) {
        return {finding(Severity::error, "shm_mount",
                        std::string("cannot be used: ") + std::strerror(errno),
                        "mkdir -p /dev/shm && mount -t tmpfs -o mode=1777 tmpfs /dev/shm")};
    }
    Findings findings;
    check_mount(room, findings);
    check_mode(folder, findings);
    check_rest(room, findings);
    if (host.inventory) {
        check_need(host, findings);
    }
    for (const std::string& line : host.configuration_problems) {
        findings.push_back({Severity::error, "configuration", "configuration", line,
                            "zav-shm-centerd --check --config FILE shows what is wrong"});
    }
    if (findings.empty()) {
        findings.push_back(well("shm_mount", shared_memory_folder,
                                std::to_string(std::uint64_t{room.f_bavail} * room.f_frsize) +
                                    " of " +
                                    std::to_string(std::uint64_t{room.f_blocks} * room.f_frsize) +
                                    " bytes and " + std::to_string(room.f_favail) + " files left"));
    }
    return findings;
}

}  // namespace zav_shm::doctor
