// SPDX-License-Identifier: Apache-2.0
#include <filesystem>
#include <fstream>

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
    EXPECT_TRUE(
        has_line("ExecStart=" ZAV_TEST_INSTALLED_CENTERD " --config " ZAV_TEST_INSTALLED_CONFIG));
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
    EXPECT_NE(text().find(" CAP_FSETID "), std::string::npos);
    EXPECT_EQ(text().find("\nRestrictSUIDSGID="), std::string::npos);
}

// A service manager that waits for news which never come ends the daemon.
TEST_F(Service_File, waits_for_notifications_only_when_there_are_some) {
    EXPECT_EQ(has_line("Type=notify"), ZAV_TEST_NOTIFIES == 1);
    EXPECT_EQ(has_line("WatchdogSec=20"), ZAV_TEST_NOTIFIES == 1);
    EXPECT_EQ(has_line("Type=exec"), ZAV_TEST_NOTIFIES == 0);
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
