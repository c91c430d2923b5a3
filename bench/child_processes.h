// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace zav_shm::bench {

/// Real processes, forked, that a bench starts and waits for.
///
/// Owner    the starting thread, which has to be the process's main thread: a child is killed
///          by the kernel when the thread that started it ends, however it ends.
/// Crash    a child that ends by a signal or with a failure is named on standard error.
class Child_Processes {
public:
    Child_Processes() = default;
    Child_Processes(const Child_Processes&) = delete;
    Child_Processes& operator=(const Child_Processes&) = delete;

    /// Kills, by process id, the children that have not been waited for.
    ~Child_Processes();

    /// Runs `body` in a child; what it returns is the child's exit status. The child leaves
    /// without running this process's destructors.
    ///
    /// @return the child's index; a fork that fails shows in wait().
    std::size_t start(const std::string& name, const std::function<int()>& body);

    /// Waits until the child has left.
    ///
    /// @return true when it returned 0.
    bool wait(std::size_t index);

    /// Nothing happens when the child has been waited for, or never was.
    void signal(std::size_t index, int number) const;

    /// Ends the child with SIGKILL, stopped or not, and takes that for no failure.
    void kill(std::size_t index);

    /// @return -1 once it has been waited for, or when the fork failed.
    pid_t pid(std::size_t index) const { return children_.at(index).pid; }

    /// Waits for all that are left.
    bool wait_all();

    /// User and system time of all children that have been waited for.
    double cpu_microseconds() const { return cpu_microseconds_; }

    /// How often they gave up a processor or lost it.
    long context_switches() const { return context_switches_; }

private:
    struct Child {
        std::string name;
        pid_t pid;  // -1 once it has been waited for, or when the fork failed
        bool succeeded;
    };

    std::vector<Child> children_;
    double cpu_microseconds_ = 0;
    long context_switches_ = 0;
};

}  // namespace zav_shm::bench
