// SPDX-License-Identifier: Apache-2.0
#include "daemon_fixture.h"

#include <sys/ipc.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

void Daemon_Process::SetUp() {
    Control_Queues::SetUp();
    char name[] = "/tmp/centerd_test_XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    folder_ = name;
    chmod(name, 0777);
    errors_path_ = folder_ + "/errors";
}

void Daemon_Process::TearDown() {
    daemon.reset();
    fs::remove_all(folder_);
    Control_Queues::TearDown();
}

std::string Daemon_Process::write_file(const std::string& name, const std::string& content) const {
    const std::string path = folder_ + "/" + name;
    std::ofstream(path) << content;
    chmod(path.c_str(), 0644);
    return path;
}

std::string Daemon_Process::configuration(const std::string& content) const {
    return write_file("zav_shm.json", content);
}

Daemon_Process::Words Daemon_Process::command(const Words& arguments, const Words& before) const {
    Words words{"/bin/sh", "-c", R"(errors=$1; shift; exec "$@" 2>>"$errors")", "sh", errors_path_};
    words.insert(words.end(), before.begin(), before.end());
    words.emplace_back(ZAV_TEST_CENTERD);
    words.insert(words.end(), arguments.begin(), arguments.end());
    return words;
}

Ended Daemon_Process::run(const Words& arguments, const Words& before) const {
    fs::remove(errors_path_);
    Child_Process process(command(arguments, before));
    Ended ended;
    ended.output = process.read_rest();
    ended.status = process.wait();
    ended.errors = errors();
    return ended;
}

bool Daemon_Process::start(const Words& arguments, const Words& before) {
    return start_with(small_configuration, arguments, before);
}

bool Daemon_Process::start_with(const std::string& content, const Words& arguments,
                                const Words& before) {
    Words all{"--config", configuration(content)};
    all.insert(all.end(), arguments.begin(), arguments.end());
    daemon.reset();
    lines_before.clear();
    fs::remove(errors_path_);
    daemon.emplace(command(all, before));
    while (const auto line = daemon->read_line()) {
        if (line->rfind("zav-shm-centerd ", 0) == 0) {
            start_line = *line;
            if (std::find(all.begin(), all.end(), "--clean") == all.end()) {
                announce_leftovers_of(*parsed(content));
            }
            return true;
        }
        lines_before.push_back(*line);
    }
    return false;
}

std::optional<int> Daemon_Process::end(int signal) {
    daemon->signal(signal);
    return daemon->wait(std::chrono::seconds(10));
}

std::string Daemon_Process::errors() const { return content_of(errors_path_); }

void Daemon_Process::announce_files_of_a_killed_one() {
    announce_locks_of_a_killed_one();
    leaves_segment("shm/center_page");
    leaves_segment("shm/center_status.json");
}

void Daemon_Process::announce_locks_of_a_killed_one() {
    char queues[64];
    std::snprintf(queues, sizeof queues, "zav_shm_queues_0x%08x",
                  static_cast<unsigned>(ftok("/tmp", 5120)));
    leaves_segment(queues);
    leaves_segment("shm/center_lock");
}

Daemon_Process::Words Daemon_Process::as_nobody(const std::string& groups) {
    return {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--groups=" + groups};
}

bool Daemon_Process::there_is_nobody() const { return run({"--version"}, as_nobody()).status == 0; }

std::string Daemon_Process::content_of(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}
