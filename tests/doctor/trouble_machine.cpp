// SPDX-License-Identifier: Apache-2.0
#include "trouble_machine.h"

#include "control/json_text.h"
#include "support/child_process.h"

namespace {

bool holds(const Json::Value& finding, const char* member, const std::string& words) {
    return zav_shm::text_at(finding, member).find(words) != std::string::npos;
}

}  // namespace

// What a script writes before is not of interest; the report is its last line.
void Trouble_Machine::run(const std::string& script) {
    const std::string programs = std::string(
        "TOOL='" ZAV_TEST_TOOL "' CENTERD='" ZAV_TEST_CENTERD "' CLOCK_SHIM='" ZAV_TEST_CLOCK_SHIM
        "' FALSE_CENTER='" ZAV_TEST_FALSE_CENTER "' QUEUE_MAKER='" ZAV_TEST_QUEUE_MAKER "'\n");
    Child_Process machine({"/bin/sh", ZAV_TEST_PRIVATE_NAMESPACES, "unshare", "--pid", "--fork",
                           "--mount-proc", "--kill-child", "bash", "-c",
                           programs + "WORK=$(mktemp -d -p /var/tmp zav_doctor_XXXXXX)\n. '" +
                               ZAV_TEST_MACHINE + "'\n" + script});
    output = machine.read_rest();
    status = machine.wait().value_or(-1);
    const std::size_t begin = output.rfind("{\"checks\"");
    report =
        begin == std::string::npos ? Json::Value() : zav_shm::parsed_json(output.substr(begin));
    ASSERT_TRUE(report.isObject()) << output;
    EXPECT_EQ(status, report["exit_status"].asInt());
}

void Trouble_Machine::sees(const std::string& severity, const std::string& check,
                           const std::string& object, const std::string& seen,
                           const std::string& remedy) const {
    for (const Json::Value& finding : zav_shm::list_at(report, "checks")) {
        if (finding["severity"] == severity && finding["check"] == check &&
            holds(finding, "object", object) && holds(finding, "seen", seen) &&
            holds(finding, "remedy", remedy)) {
            return;
        }
    }
    ADD_FAILURE() << "no " << severity << " " << check << " of \"" << object << "\", \"" << seen
                  << "\", \"" << remedy << "\" in\n"
                  << output;
}

bool Trouble_Machine::has(const std::string& check, const std::string& severity) const {
    for (const Json::Value& finding : zav_shm::list_at(report, "checks")) {
        if (finding["severity"] == severity && finding["check"] == check) {
            return true;
        }
    }
    return false;
}

int Trouble_Machine::count(const std::string& severity) const {
    return report["counts"][severity].asInt();
}
