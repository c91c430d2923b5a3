// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "rtspd/camera.h"
#include "rtspd/rtsp_client.h"
#include "support/child_process.h"
#include "support/histories.h"
#include "support/kernel_objects.h"
#include "support/threads.h"

/// Fixture of tests with the server as a process of its own, at a port that is free.
class Rtspd : public Kernel_Objects {
protected:
    static constexpr std::uint64_t key_interval = 25;
    static constexpr std::size_t frame_bytes = 4000;
    static constexpr std::chrono::milliseconds frame_interval{20};

    void SetUp() override;
    void TearDown() override;

    /// Starts the server and waits until it is ready.
    ///
    /// @param line  a command line in which "$@" stands for the program and its arguments
    bool start_server(const std::vector<std::string>& arguments = {},
                      const std::string& line = "exec \"$@\"");

    /// Runs the program to its end.
    ///
    /// @return its exit status
    int run_program(const std::vector<std::string>& arguments);

    /// A command line of the shell, with its output and errors; "$URL" is that of the server.
    struct Ended {
        int status = -1;
        std::string output;
    };
    Ended shell(const std::string& line);

    /// What the server, or the program that was run last, wrote to standard error.
    std::string errors() const;

    std::unique_ptr<Camera> numbered_camera(const std::string& name = "CAM",
                                            std::size_t size = frame_bytes);

    /// Publishes the frames of a file of the tests again and again.
    static std::unique_ptr<Camera> file_camera(const std::string& file, std::uint32_t codec,
                                               int stream = 0);

    /// Expects this many units that are, without a gap, those of a numbered camera.
    ///
    /// @return the number of the last one; -1 when something was wrong
    static std::int64_t expect_units(Rtsp_Client& client, int count,
                                     std::size_t size = frame_bytes);

    std::string path(const std::string& name) const { return folder_ + "/" + name; }
    void write(const std::string& name, const std::string& text) const;

    std::optional<Child_Process> server;
    int port = 0;
    std::string scheme = "rtsp";

private:
    std::string folder_;
};
