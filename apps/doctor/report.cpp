// SPDX-License-Identifier: Apache-2.0
#include "apps/doctor/report.h"

#include <json/json.h>

#include <algorithm>
#include <array>

#include "apps/text/printable.h"
#include "control/control_protocol.h"

namespace zav_shm::doctor {

namespace {

constexpr std::array<Severity, 4> worst_first = {Severity::error, Severity::warning, Severity::note,
                                                 Severity::ok};

const char* name_of(Severity severity) {
    constexpr std::array<const char*, 4> names = {"ok", "note", "warning", "error"};
    return names.at(static_cast<std::size_t>(severity));
}

std::size_t count_of(const Findings& findings, Severity severity) {
    return static_cast<std::size_t>(
        std::count_if(findings.begin(), findings.end(),
                      [severity](const Finding& one) { return one.severity == severity; }));
}

std::string line_of(const Finding& finding) {
    std::string line = name_of(finding.severity);
    line += ": " + finding.object + ": " + finding.seen;
    if (!finding.remedy.empty()) {
        line += "; remedy: " + finding.remedy;
    }
    return printable(line) + "\n";
}

}  // namespace

std::string text_of(const Findings& findings, bool verbose) {
    std::string text;
    for (const Severity severity : worst_first) {
        for (const Finding& finding : findings) {
            if (finding.severity == severity && (verbose || severity != Severity::ok)) {
                text += line_of(finding);
            }
        }
    }
    const auto counted = [&](Severity severity, const char* what) {
        return std::to_string(count_of(findings, severity)) + " " + what;
    };
    return text + counted(Severity::error, "errors, ") + counted(Severity::warning, "warnings, ") +
           counted(Severity::note, "notes, ") + counted(Severity::ok, "well\n");
}

std::string json_of(const Findings& findings, int exit_status) {
    Json::Value report;
    report["checks"] = Json::Value(Json::arrayValue);
    for (const Finding& finding : findings) {
        Json::Value value;
        value["severity"] = name_of(finding.severity);
        value["check"] = finding.check;
        value["object"] = finding.object;
        value["seen"] = finding.seen;
        value["remedy"] = finding.remedy;
        report["checks"].append(value);
    }
    for (const Severity severity : worst_first) {
        report["counts"][name_of(severity)] = Json::UInt64{count_of(findings, severity)};
    }
    report["exit_status"] = exit_status;
    return control::written_on_one_line(report) + "\n";
}

int exit_status_of(const Findings& findings) {
    constexpr int warnings = 1;
    constexpr int no_center = 3;
    constexpr int no_system = 6;
    if (count_of(findings, Severity::error) == 0) {
        return count_of(findings, Severity::warning) == 0 ? 0 : warnings;
    }
    const bool is_center_alone =
        std::all_of(findings.begin(), findings.end(), [](const Finding& one) {
            return one.severity != Severity::error || one.check == "center" ||
                   one.check == "center_hangs";
        });
    return is_center_alone ? no_center : no_system;
}

}  // namespace zav_shm::doctor
