// SPDX-License-Identifier: Apache-2.0
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>

#include "daemon_fixture.h"

namespace {

class Service_File : public Daemon_Process {
protected:
    static std::string text() { return content_of(ZAV_TEST_SERVICE_FILE); }

    static bool has_line(const std::string& line) {
        return ("\n" + text()).find("\n" + line + "\n") != std::string::npos;
    }
};

TEST_F(Service_File, names_the_program_where_it_is_installed) {
    EXPECT_TRUE(has_line("ExecStart=" ZAV_TEST_INSTALLED_CENTERD
                         " --config " ZAV_TEST_INSTALLED_CONFIG " --group zav-shm"));
    EXPECT_EQ(text().find('@'), text().find("@system-service")) << "a name was not filled in";
}

TEST_F(Service_File, keeps_what_clients_share_with_the_center) {
    for (const char* line : {"PrivateTmp=no", "PrivateIPC=no", "RemoveIPC=no",
                             "LimitMEMLOCK=infinity", "Restart=on-failure"}) {
        EXPECT_TRUE(has_line(line)) << line;
    }
    EXPECT_EQ(text().find("\nPrivateDevices="), std::string::npos);
}

// Otherwise the kernel keeps the setgid bit off the folder of the rings.
TEST_F(Service_File, lets_the_rings_folder_hand_its_group_on) {
    EXPECT_TRUE(has_line("Group=zav-shm"));
    EXPECT_EQ(text().find("\nRestrictSUIDSGID="), std::string::npos);
}

// A service manager that waits for news which never come ends the daemon.
TEST_F(Service_File, waits_for_notifications_only_when_there_are_some) {
    EXPECT_EQ(has_line("Type=notify"), ZAV_TEST_NOTIFIES == 1);
    EXPECT_EQ(has_line("WatchdogSec=20"), ZAV_TEST_NOTIFIES == 1);
    EXPECT_EQ(has_line("Type=exec"), ZAV_TEST_NOTIFIES == 0);
}

TEST_F(Service_File, runs_as_a_user_of_its_own_without_capabilities) {
    EXPECT_TRUE(has_line("User=zav-shm"));
    EXPECT_TRUE(has_line("CapabilityBoundingSet="));
    const std::string users = content_of(ZAV_TEST_PACKAGING "/zav-shm.sysusers");
    EXPECT_NE(users.find("\nu zav-shm "), std::string::npos) << users;
}

// Each point that is open has its reason beside it in the file.
TEST_F(Service_File, all_services_are_exposed_little) {
    if (!std::filesystem::exists("/usr/bin/systemd-analyze")) {
        GTEST_SKIP() << "needs systemd-analyze";
    }
    for (const char* const name : {"zav-shm-centerd", "zav-shm-rtspd", "zav-shm-web"}) {
        const std::string unit =
            content_of(std::string(ZAV_TEST_PACKAGING "/") + name + ".service");
        const std::string path =
            write_file(std::string(name) + ".service",
                       std::regex_replace(unit, std::regex("@[A-Z_]+@"), "/bin/true"));
        Child_Process check(
            {"/bin/sh", "-c",
             "systemd-analyze security --no-pager --offline=yes " + path + " 2>&1 | tail -n 1"});
        const std::string verdict = check.read_rest();
        std::printf("%s", verdict.c_str());
        const std::size_t level = verdict.find(".service: ");
        ASSERT_NE(level, std::string::npos) << verdict;
        EXPECT_LT(std::stod(verdict.substr(level + 10)), 3.0) << verdict;
    }
}

TEST_F(Service_File, is_valid_to_the_service_manager) {
    const std::string analyze = "/usr/bin/systemd-analyze";
    if (!std::filesystem::exists(analyze)) {
        GTEST_SKIP() << "needs systemd-analyze";
    }
    std::string unit = text();
    const std::string installed = ZAV_TEST_INSTALLED_CENTERD;
    for (std::size_t at = 0; (at = unit.find(installed, at)) != std::string::npos;) {
        unit.replace(at, installed.size(), ZAV_TEST_CENTERD);
        at += sizeof ZAV_TEST_CENTERD;
    }
    const std::string path = write_file("zav-shm-centerd.service", unit);
    Child_Process check({"/bin/sh", "-c", analyze + " verify --man=no " + path + " 2>&1"});
    EXPECT_EQ(check.read_rest(), "");
    EXPECT_EQ(check.wait(), 0);
}

}  // namespace
