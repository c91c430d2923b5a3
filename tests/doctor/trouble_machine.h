// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>
#include <json/json.h>

#include <string>

/// Fixture of tests that run a script with /dev/shm, System V queues, mounts and processes of its
/// own, and look at what `doctor` tells there. machine.sh has what the scripts are made of.
class Trouble_Machine : public testing::Test {
protected:
    /// Runs the script; its last command is `doctor`.
    void run(const std::string& script);

    /// Demands a finding of this check, with these words in its three texts.
    void sees(const std::string& severity, const std::string& check, const std::string& object,
              const std::string& seen, const std::string& remedy) const;

    bool has(const std::string& check, const std::string& severity) const;
    int count(const std::string& severity) const;

    int status = -1;
    Json::Value report;
    std::string output;
};
