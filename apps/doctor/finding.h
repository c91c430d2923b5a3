// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace zav_shm::doctor {

enum class Severity {
    ok,
    note,     // works, and is good to know
    warning,  // frames are or will be lost, or room is
    error     // clients or the center cannot work
};

/// What one check has seen of one thing. All texts are as their sources left them: whoever prints
/// them escapes them.
struct Finding {
    Severity severity = Severity::ok;
    std::string check;   // one of the names in docs/doctor.md
    std::string object;  // "/dev/shm", "reader PLAYER of CAM_LOOP/0/0, process 812 (recorder)"
    std::string seen;    // with value and limit
    std::string remedy;  // one sentence or command; empty when all is well
};

using Findings = std::vector<Finding>;

inline Finding well(std::string check, std::string object, std::string seen) {
    return {Severity::ok, std::move(check), std::move(object), std::move(seen), {}};
}

/// Whether any of them is worse than `ok`.
inline bool has_trouble(const Findings& findings) {
    for (const Finding& finding : findings) {
        if (finding.severity != Severity::ok) {
            return true;
        }
    }
    return false;
}

inline void append(Findings& findings, Findings others) {
    for (Finding& other : others) {
        findings.push_back(std::move(other));
    }
}

}  // namespace zav_shm::doctor
