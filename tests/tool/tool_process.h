// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "center/center_process.h"

/// Two streams of 64 and 16 KiB, so that the sample of the main stream fits into the first only.
inline constexpr const char* tool_configuration = R"({
    "Stream": [{"index": 0, "page_size": 65536}, {"index": 1, "page_size": 16384}],
    "Distributor": [{"name": "CAM_LOOP", "channel": 2, "stream": [0, 1]},
                    {"name": "CAM_REC", "channel": 1, "stream": [0, 1]}],
    "Receiver": [{"name": "PLAYER", "channel": 2, "stream": [0, 1]},
                 {"name": "RECODER", "channel": 2, "stream": [0, 1]}]
})";

/// How it ends, as the numbers that scripts depend on.
inline constexpr int incomplete = 1;
inline constexpr int usage = 2;
inline constexpr int no_center = 3;
inline constexpr int refused = 4;
inline constexpr int input_output = 5;
inline constexpr int no_system = 6;

/// The tool as a process of its own: standard output through a pipe, standard error in a file.
class Tool_Process {
public:
    /// @param arguments  of zav-shm
    /// @param shell      a command line in which "$@" stands for zav-shm and its arguments
    Tool_Process(const std::vector<std::string>& arguments, std::string errors,
                 const std::string& shell);

    /// Waits for the end.
    int status();

    /// All that it writes to standard output until its end.
    std::string output() { return process_.read_rest(); }
    std::optional<std::string> read_line() { return process_.read_line(); }

    /// What it wrote to standard error so far.
    std::string errors() const;

    /// Waits until standard error holds this text.
    bool says(const std::string& text) const;

    /// The figure behind "NAME=" in the last line of standard error.
    long figure(const std::string& name) const;

    pid_t pid() const { return process_.pid(); }

    void signal(int number) { process_.signal(number); }

private:
    Child_Process process_;
    std::string errors_;
};

/// Fixture of tests with the tool, the center, and a folder for files.
class Tool : public Center_Process {
protected:
    void SetUp() override;
    void TearDown() override;

    /// Starts the tool, by itself or within a command line: see Tool_Process.
    Tool_Process start(const std::vector<std::string>& arguments,
                       const std::string& shell = "exec \"$@\"");

    /// A file name in a folder that goes with the test.
    std::string path(const std::string& name) const { return folder_ + "/" + name; }

    static std::string content(const std::string& file);
    static void write(const std::string& file, const std::string& text);

    /// Everything that the tests' smallest and largest streams hold.
    static std::string stream(const std::string& name);
    static std::string sample(const std::string& name);

    /// A killed consumer leaves its card for the center's host to sweep.
    bool leaves_cards = false;

private:
    std::string folder_;
    int started_ = 0;
};
