// SPDX-License-Identifier: Apache-2.0
#include "bench/child_processes.h"

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zav_shm::bench {

namespace {

double microseconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
}

[[noreturn]] void run_child(pid_t parent, const std::function<int()>& body) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {  // it died before the line above took effect
        _exit(EXIT_FAILURE);
    }
    const int result = body();
    std::fflush(nullptr);
    _exit(result);
}

void report_failure(const std::string& name, int status) {
    if (WIFSIGNALED(status)) {
        std::fprintf(stderr, "%s ended by signal %d\n", name.c_str(), WTERMSIG(status));
    } else {
        std::fprintf(stderr, "%s failed with status %d\n", name.c_str(), WEXITSTATUS(status));
    }
}

}  // namespace

Child_Processes::~Child_Processes() {
    for (const Child& child : children_) {
        if (child.pid > 0) {
            ::kill(child.pid, SIGKILL);
            waitpid(child.pid, nullptr, 0);
        }
    }
}

std::size_t Child_Processes::start(const std::string& name, const std::function<int()>& body) {
    std::fflush(nullptr);  // or the child would print it again
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        run_child(parent, body);
    }
    if (pid < 0) {
        std::fprintf(stderr, "%s: fork: %s\n", name.c_str(), std::strerror(errno));
    }
    children_.push_back({name, pid, false});
    return children_.size() - 1;
}

bool Child_Processes::wait(std::size_t index) {
    Child& child = children_.at(index);
    if (child.pid <= 0) {
        return child.succeeded;
    }
    int status = 0;
    rusage usage{};
    while (wait4(child.pid, &status, 0, &usage) < 0) {
        if (errno != EINTR) {
            return false;
        }
    }
    child.pid = -1;
    child.succeeded = WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS;
    if (!child.succeeded) {
        report_failure(child.name, status);
    }
    cpu_microseconds_ += microseconds(usage.ru_utime) + microseconds(usage.ru_stime);
    context_switches_ += usage.ru_nvcsw + usage.ru_nivcsw;
    return child.succeeded;
}

void Child_Processes::signal(std::size_t index, int number) const {
    if (const pid_t child = pid(index); child > 0) {  // -1 would mean every process
        ::kill(child, number);
    }
}

void Child_Processes::kill(std::size_t index) {
    Child& child = children_.at(index);
    if (child.pid > 0) {
        ::kill(child.pid, SIGKILL);
        waitpid(child.pid, nullptr, 0);
        child.pid = -1;
        child.succeeded = true;
    }
}

bool Child_Processes::wait_all() {
    bool succeeded = true;
    for (std::size_t i = 0; i < children_.size(); ++i) {
        succeeded = wait(i) && succeeded;
    }
    return succeeded;
}

}  // namespace zav_shm::bench
