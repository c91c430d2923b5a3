// SPDX-License-Identifier: Apache-2.0
#include "support/histories.h"

#include <gtest/gtest.h>

#include <filesystem>

void remove_histories(const std::set<std::string>& may_be_left) {
    namespace fs = std::filesystem;
    const fs::path folder = "/dev/shm/shm/rings";
    if (!fs::exists(folder)) {
        return;
    }
    for (const auto& file : fs::directory_iterator(folder)) {
        const std::string ending = file.path().extension();
        EXPECT_TRUE(ending.empty() || ending == ".lock" || ending == ".request" ||
                    may_be_left.count(ending) != 0)
            << file.path();
    }
    fs::remove_all(folder);
}
