// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "center_fixture.h"
#include "support/child_process.h"

/// Fixture of tests with the center and its clients in processes of their own.
class Center_Process : public Control_Queues {
protected:
    void TearDown() override;

    /// Starts the center and waits until it serves.
    ///
    /// @return false when it ended instead.
    bool start_center(const std::string& configuration = small_configuration,
                      const std::string& mode = "serve");

    static Child_Process start_client(const std::vector<std::string>& role);

    /// Starts a client and waits for its "ready".
    static Child_Process start_ready_client(const std::vector<std::string>& role);

    /// Everything that the center prints within this time.
    std::string printed_within(std::chrono::milliseconds time);

    /// Processor time that the center uses within this time, in milliseconds, and what it prints.
    struct Load {
        long cpu_ms = 0;
        std::string printed;
    };
    Load load_within(std::chrono::milliseconds time);

    std::optional<Child_Process> center;
};
