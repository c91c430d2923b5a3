// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>
#include <sys/mount.h>

#include <string>

/// A fixture whose tests may have another file system as /dev/shm than the one they began with.
template <class Fixture>
class Other_Memory_Folder : public Fixture {
protected:
    /// @param options  of a tmpfs, for instance "size=1m,nr_inodes=60"
    void give_room(const std::string& options) {
        const unsigned long flags = options == "ro" ? MS_RDONLY : 0;
        const char* const data = options == "ro" ? nullptr : options.c_str();
        mounted_ = mount("tmpfs", "/dev/shm", "tmpfs", flags, data) == 0;
        ASSERT_TRUE(mounted_);
    }
    void TearDown() override {
        Fixture::TearDown();
        if (mounted_) {
            EXPECT_EQ(umount("/dev/shm"), 0);
        }
    }

private:
    bool mounted_ = false;
};
