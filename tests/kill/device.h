// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "../centerd/daemon_fixture.h"
#include "frame_log.h"
#include "support/child_process.h"
#include "support/stall_watch.h"

/// Fixture with a whole device as processes: the daemon, a producer and three consumers, each with
/// a log; of the safe layer, where a test does not say otherwise.
class Device : public Daemon_Process {
protected:
    static constexpr int subscriber_count = 3;

    enum class Role { center, producer, consumer };

    void SetUp() override;
    void TearDown() override;

    // To be set before anything is started.
    std::size_t history_bytes_ = 0;   // that the publisher keeps; 0: what it takes by itself
    bool producer_is_fixed_ = false;  // of the fixed interface
    bool consumer_0_is_fixed_ = false;

    /// Starts, or starts again, the process of a role; consumer means the first subscriber.
    ///
    /// @param test_point  where it is to end or stop (ipc/test_point.h) once arm() was called;
    ///                    empty: nowhere
    void start_role(Role role, const std::string& test_point = "");
    void start_subscriber(int index, const std::string& test_point = "", int work_ms = 0);
    static void arm();
    void start_all(long fps);
    Child_Process& process_of(Role role);
    bool has_fixed_client() const;
    void wait_for_center();

    /// Ends everything in order.
    void end_all();

    Frame_Log& log_of_producer() { return *logs_.at("producer"); }
    Frame_Log& log_of(int subscriber) { return *logs_.at(name_of(subscriber)); }
    static std::string log_file_of(int subscriber);
    static std::string name_of(int subscriber);

    /// True when each subscriber has got nearly every frame of the last 300 ms.
    bool is_at_full_rate();
    bool becomes_full(std::chrono::milliseconds limit);

    /// Frames that were handed out as whole and were not; and those of, or through, the fixed
    /// interface, which nobody calls whole.
    std::uint64_t wrong_frames();
    std::uint64_t wrong_unverified_frames();

    /// As all subscribers were told.
    std::uint64_t frames_that_were_lost();

    /// Of the processes of the safe layer: how often they have registered with a center that was
    /// started again.
    std::map<std::string, std::uint64_t> registrations();
    bool all_register_again(const std::map<std::string, std::uint64_t>& before,
                            std::chrono::milliseconds limit);

    /// What is left below /dev/shm when everything has ended, besides what stays on purpose: locks,
    /// the history of the stream, and the cards of subscribers that were killed, which whoever
    /// sweeps may take for what they are.
    static std::vector<std::string> left_behind();

    /// How many frames the machine's own stalls may have cost since `from_ns`: all that were due
    /// meanwhile, and those that were under way.
    std::uint64_t lost_to_stalls(std::int64_t from_ns) const;

    Stall_Watch machine;

    /// Set in the environment of every process that is started from now on.
    std::vector<std::string> client_environment;

    std::optional<Child_Process> producer;
    std::map<int, Child_Process> subscribers;
    long fps_ = 60;

private:
    void start_producer(const std::string& test_point);
    Child_Process started(std::vector<std::string> command, const std::string& test_point) const;

    std::map<std::string, Frame_Log*> logs_;
};
