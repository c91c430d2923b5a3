// SPDX-License-Identifier: Apache-2.0
//
// The center: whether there is one, one only, and whether it does its work.
#include <algorithm>

#include "apps/doctor/checks.h"
#include "control/center_status.h"
#include "control/json_text.h"

namespace zav_shm::doctor {

namespace {

// The daemon writes its status once a second.
constexpr std::int64_t status_age_max_ms = 3000;

std::string seconds_text(std::int64_t ms) { return std::to_string(ms / 1000) + " s"; }

std::string center_text(const Host& host) {
    const auto found = std::find_if(host.participants.begin(), host.participants.end(),
                                    [](const Participant& one) { return one.role == "center"; });
    return found != host.participants.end() ? found->text() : "center";
}

Finding no_center(const Host& host) {
    const std::string folder = host.segment_folder();
    if (host.page || host.status) {
        const std::uint64_t pid =
            host.page ? host.page->pid : count_at(host.status->content, "pid");
        return {Severity::error, "center", "center of " + folder,
                "was killed: process " + std::to_string(pid) +
                    " is gone, and its page is still there. Frames between publishers and "
                    "subscribers flow on; nobody can register",
                "start zav-shm-centerd again; why it ended is in its log (journalctl -u "
                "zav-shm-centerd)"};
    }
    const bool has_other = !host.other_centers.empty();
    return {Severity::error, "center", "center of " + folder,
            has_other ? "does not run; one of /dev/shm/" + host.other_centers.front() + " does"
                      : "does not run: nobody can register",
            has_other ? "zav-shm doctor --folder " + host.other_centers.front()
                      : "start zav-shm-centerd; if it runs in a container, share its /dev/shm"};
}

void check_health(const Host& host, Findings& findings) {
    const std::string center = center_text(host);
    const bool is_stopped = std::any_of(
        host.participants.begin(), host.participants.end(),
        [](const auto& one) { return one.role == "center" && one.facts && one.facts->is_stopped; });
    if (is_stopped) {
        const auto pid = host.page->pid;
        findings.push_back({Severity::error, "center_hangs", center,
                            "is stopped (SIGSTOP or a debugger): it answers nobody",
                            "kill -CONT " + std::to_string(pid)});
    } else if (!host.status) {
        findings.push_back(
            {Severity::warning, "center_hangs", center,
             "lives, and " + center_status_path(host.request.folder) + " cannot be read",
             "run as a user of the center's group; if the file is missing, see "
             "whether /dev/shm is full"});
    } else if (host.status->age_ms > status_age_max_ms) {
        findings.push_back({Severity::error, "center_hangs", center,
                            "hangs: " + center_status_path(host.request.folder) + " is " +
                                seconds_text(host.status->age_ms) + " old, the limit is " +
                                seconds_text(status_age_max_ms),
                            "see whether somebody reads its standard output and whether /dev/shm "
                            "is full, then start it again"});
    }
}

void check_version(const Host& host, Findings& findings) {
    const std::string version =
        host.status ? text_at(host.status->content, "version") : std::string();
    if (!version.empty() && version != host.request.version) {
        findings.push_back({Severity::warning, "version", center_text(host),
                            "has the version " + version + ", this program " + host.request.version,
                            "install the same version of both, and start the center again"});
    }
}

void check_two(const Host& host, Findings& findings) {
    for (const std::string& other : host.other_centers) {
        const auto page = read_center_page(other);
        findings.push_back({Severity::error, "two_centers", "center of /dev/shm/" + other,
                            "process " + std::to_string(page ? page->pid : 0) +
                                ", runs beside that of " + host.segment_folder() +
                                ": a client reaches only the one that has its /tmp",
                            "end one of them; give both configurations' names to one center"});
    }
}

}  // namespace

Findings check_center(const Host& host) {
    Findings findings;
    if (!host.is_center_alive) {
        return {no_center(host)};
    }
    check_health(host, findings);
    check_version(host, findings);
    check_two(host, findings);
    if (findings.empty()) {
        findings.push_back(
            well("center", center_text(host),
                 "serves " + host.segment_folder() + ", version " + host.request.version));
    }
    return findings;
}

}  // namespace zav_shm::doctor
