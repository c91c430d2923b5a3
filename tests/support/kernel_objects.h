// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "stream/channel_names.h"

/// Fixture of every test that makes kernel objects. At the end it demands that exactly those
/// names are left below /dev/shm that the test announced as documented leftovers, and no
/// queue, file descriptor or thread; then it removes them.
class Kernel_Objects : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    /// A segment or semaphore that the documented behaviour leaves behind.
    void leaves_segment(const std::string& name);
    void leaves_semaphore(const std::string& name);
    void leaves_semaphores(const IPC_SHM_CTRL_INFO& names);

    /// Makes a folder below /dev/shm that goes with the test.
    void make_folder(const std::string& name);

    /// True when the file exists below /dev/shm.
    static bool exists(const std::string& file);

private:
    std::set<std::string> leftovers_;
    std::set<std::string> folders_;
    std::set<std::string> descriptors_;
    std::size_t threads_ = 0;
};
