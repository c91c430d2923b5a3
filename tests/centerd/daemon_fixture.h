// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "center/center_fixture.h"
#include "support/child_process.h"

/// What a program that has ended by itself printed.
struct Ended {
    std::optional<int> status;
    std::string output;
    std::string errors;
};

/// Fixture of tests that run the daemon as a process, the program as it is installed.
class Daemon_Process : public Control_Queues {
protected:
    using Words = std::vector<std::string>;

    void SetUp() override;
    void TearDown() override;

    /// Writes a file that everybody may read, in a folder that goes with the test.
    std::string write_file(const std::string& name, const std::string& content) const;
    std::string configuration(const std::string& content = small_configuration) const;
    const std::string& folder() const { return folder_; }

    /// Words that start the program: behind these of `before`, which start it as another user or
    /// in another environment. Its standard error goes to a file.
    Words command(const Words& arguments, const Words& before = {}) const;

    /// Runs it to its end.
    Ended run(const Words& arguments, const Words& before = {}) const;

    /// Starts it with the small configuration and waits for the line that says what it serves.
    ///
    /// @return false when it ended instead.
    bool start(const Words& arguments = {}, const Words& before = {});
    bool start_with(const std::string& content, const Words& arguments = {},
                    const Words& before = {});

    /// Ends it with a signal; with what it leaves announced, unless it was started with --clean.
    std::optional<int> end(int signal = SIGTERM);

    std::string errors() const;

    /// Announces what a killed one leaves beside what an ended one does.
    void announce_files_of_a_killed_one();
    void announce_locks_of_a_killed_one();

    /// Words that start a program as nobody, in these groups.
    static Words as_nobody(const std::string& groups = "65534");

    /// False where only one user is known, and when nobody may not run the program.
    bool there_is_nobody() const;

    static std::string content_of(const std::string& path);

    std::optional<Child_Process> daemon;
    std::string start_line;
    std::vector<std::string> lines_before;  // of the center's own

private:
    std::string folder_;
    std::string errors_path_;
};
