// SPDX-License-Identifier: Apache-2.0
#include "ipc/file_content.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <thread>

#include "ipc/descriptor.h"
#include "support/interrupted.h"
#include "support/kernel_objects.h"

using zav_shm::read_regular_file;

namespace {

class File : public Kernel_Objects {
protected:
    void SetUp() override {
        Kernel_Objects::SetUp();
        make_folder("files");
    }
    void TearDown() override {
        std::filesystem::remove_all("/dev/shm/files");
        Kernel_Objects::TearDown();
    }

    static int error_of(const std::string& file, std::size_t bytes_max) {
        errno = 0;
        return read_regular_file(file, bytes_max) ? 0 : errno;
    }

    const std::string path_ = "/dev/shm/files/file";
};

TEST_F(File, of_any_length_is_read_whole) {
    for (const std::size_t length : {0U, 1U, 65535U, 65536U, 65537U, 200000U}) {
        const std::string text(length, 'x');
        std::ofstream(path_) << text;
        const auto file = read_regular_file(path_, 1 << 20);
        ASSERT_TRUE(file) << length;
        EXPECT_EQ(file->text, text);
        EXPECT_GT(file->changed.tv_sec, 0);
    }
}

TEST_F(File, of_the_greatest_length_is_read_and_a_longer_one_is_not) {
    std::ofstream(path_) << std::string(100, 'x');
    EXPECT_EQ(read_regular_file(path_, 100)->text.size(), 100U);
    EXPECT_EQ(error_of(path_, 99), EFBIG);
}

TEST_F(File, that_is_none_is_told_and_not_waited_for) {
    EXPECT_EQ(error_of(path_, 100), ENOENT);
    ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
    EXPECT_EQ(error_of(path_, 100), EINVAL);
    EXPECT_EQ(error_of("/dev/shm/files", 100), EISDIR);
    std::filesystem::create_symlink(path_, "/dev/shm/files/link");
    EXPECT_EQ(error_of("/dev/shm/files/link", 100), ELOOP);
}

// What comes in parts, as on a pipe, with signals in between.
TEST_F(File, is_read_on_after_a_signal) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    const zav_shm::Descriptor from(ends[0]);
    zav_shm::Descriptor to(ends[1]);
    std::thread writing([&to] {
        for (int i = 0; i < 3; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            EXPECT_EQ(write(to.get(), "abc", 3), 3);
        }
        to = zav_shm::Descriptor();
    });
    std::array<char, 20> buffer{};
    ssize_t got = 0;
    errno_after_interrupting(
        [&] { got = zav_shm::read_up_to(from.get(), buffer.data(), buffer.size()); });
    writing.join();
    EXPECT_EQ(std::string(buffer.data()), "abcabcabc");
    EXPECT_EQ(got, 9);
}

}  // namespace
