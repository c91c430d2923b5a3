// SPDX-License-Identifier: Apache-2.0
//
// The wall clock: all waits of the fixed interface follow it.
#include <sys/timex.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>

#include "apps/doctor/checks.h"
#include "ipc/monotonic_clock.h"

namespace zav_shm::doctor {

namespace {

constexpr std::int64_t step_ms_max = 50;  // slewing moves 0.6 ms in the time of one look

// The start of a process and the page's time are told in other units, and some time lies between.
constexpr std::int64_t start_slack_ns = 2 * ns_per_second;

const char* const remedy =
    "let one time service set the clock before the center starts, and slew it afterwards (chrony: "
    "makestep 1 3)";

std::int64_t now_ns(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return std::int64_t{now.tv_sec} * ns_per_second + now.tv_nsec;
}

// A center whose files were removed makes its page anew, later than its process began: only steps
// forward, and starts in the future, can be told from that.
void check_start(const Host& host, const Participant& center, Findings& findings) {
    const std::int64_t wall = now_ns(CLOCK_REALTIME);
    const auto told = static_cast<std::int64_t>(host.page->started_utc_ns);
    const std::int64_t real = wall - (now_ns(CLOCK_BOOTTIME) - center.facts->start_ns.value_or(0));
    const bool is_forward = center.facts->start_ns && told < real - start_slack_ns;
    const bool is_back = told > wall + start_slack_ns;
    if (is_forward || is_back) {
        const std::int64_t step_ns = is_forward ? real - told : told - wall;
        findings.push_back({Severity::warning, "clock_step", "wall clock",
                            "was set " + std::string(is_forward ? "forward" : "back") + " by " +
                                (is_forward ? "" : "more than ") +
                                std::to_string(step_ns / ns_per_second) +
                                " s since the center was started",
                            remedy});
    }
}

}  // namespace

Finding clock_keeping(int state, const timex& told) {
    if (state == TIME_ERROR || (static_cast<unsigned>(told.status) & STA_UNSYNC) != 0) {
        return {Severity::note, "clock_keeping", "wall clock",
                "is kept by no time service (adjtimex: not synchronised)",
                "start one that slews (chronyd, systemd-timesyncd), if UTC times of frames count"};
    }
    return well("clock_keeping", "wall clock", "is kept by a time service");
}

Findings check_clock(const Host& host) {
    Findings findings;
    const std::int64_t step_ms = host.clock_step_ns / ns_per_ms;
    if (std::abs(step_ms) > step_ms_max) {
        findings.push_back({Severity::warning, "clock_step", "wall clock",
                            "was set by " + std::to_string(step_ms) +
                                " ms while it was looked at: the relays' waits end early, or last "
                                "longer",
                            remedy});
    }
    const auto center =
        std::find_if(host.participants.begin(), host.participants.end(),
                     [](const Participant& one) { return one.role == "center" && one.facts; });
    if (host.page && center != host.participants.end()) {
        check_start(host, *center, findings);
    }
    if (findings.empty()) {
        findings.push_back(well("clock_step", "wall clock", "runs evenly"));
    }
    timex told{};
    findings.push_back(clock_keeping(adjtimex(&told), told));
    return findings;
}

}  // namespace zav_shm::doctor
