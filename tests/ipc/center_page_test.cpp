// SPDX-License-Identifier: Apache-2.0
#include "control/center_page.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "support/kernel_objects.h"
#include "support/pid_namespace.h"
#include "support/raw_client.h"

namespace {

namespace fs = std::filesystem;
using zav_shm::Center_Page;
using zav_shm::read_center_page;
using zav_shm::write_center_page;

const std::string path = "/dev/shm/shm/center_page";

class Center_Page_File : public Kernel_Objects {
protected:
    void SetUp() override {
        Kernel_Objects::SetUp();
        make_folder("shm");
    }
    void TearDown() override {
        zav_shm::remove_center_page("/shm");
        Kernel_Objects::TearDown();
    }

    static Center_Page page_of(std::uint64_t epoch) {
        Center_Page page;
        page.epoch = epoch;
        page.pid = 4711;
        page.semaphore_bytes = 32;
        page.started_utc_ns = 1'700'000'000'000'000'000U;
        return page;
    }

    // A valid page with these bytes put over it.
    static void write_bytes(std::size_t offset, const std::string& bytes, std::size_t length = 64) {
        const Center_Page page = page_of(5);
        std::string content(reinterpret_cast<const char*>(&page), sizeof page);
        content.replace(offset, bytes.size(), bytes);
        content.resize(length);
        std::ofstream(path, std::ios::binary) << content;
    }
};

TEST_F(Center_Page_File, reads_as_it_was_written) {
    ASSERT_TRUE(write_center_page("/shm", page_of(0x1122334455667788U)));
    const auto page = read_center_page("/shm");
    ASSERT_TRUE(page.has_value());
    EXPECT_EQ(page->epoch, 0x1122334455667788U);
    EXPECT_EQ(page->pid, 4711U);
    EXPECT_EQ(page->semaphore_bytes, 32U);
    EXPECT_EQ(page->started_utc_ns, 1'700'000'000'000'000'000U);
    EXPECT_EQ(fs::file_size(path), 64U);
}

TEST_F(Center_Page_File, lies_byte_by_byte_where_its_table_says) {
    ASSERT_TRUE(write_center_page("/shm", page_of(7)));
    std::ifstream file(path, std::ios::binary);
    const std::string bytes(std::istreambuf_iterator<char>(file), {});
    ASSERT_EQ(bytes.size(), 64U);
    EXPECT_EQ(bytes.substr(0, 4), "ZAVC");
    const auto number_at = [&](std::size_t offset, auto number) {
        std::memcpy(&number, bytes.data() + offset, sizeof number);
        return number;
    };
    EXPECT_EQ(number_at(4, std::uint16_t{}), 1);
    EXPECT_EQ(number_at(8, std::uint64_t{}), 7U);
    EXPECT_EQ(number_at(16, std::uint32_t{}), 4711U);
    EXPECT_EQ(number_at(20, std::uint32_t{}), 32U);
    EXPECT_EQ(bytes.substr(32), std::string(32, '\0'));
}

TEST_F(Center_Page_File, folder_may_be_written_without_its_slash) {
    ASSERT_TRUE(write_center_page("shm", page_of(1)));
    EXPECT_TRUE(read_center_page("/shm"));
    EXPECT_TRUE(read_center_page("shm"));
}

TEST_F(Center_Page_File, is_the_owners_alone_unless_told_otherwise) {
    ASSERT_TRUE(write_center_page("/shm", page_of(1)));
    EXPECT_EQ(fs::status(path).permissions(), fs::perms(0600));
    ASSERT_TRUE(write_center_page("/shm", page_of(2), {0664, getegid()}));
    EXPECT_EQ(fs::status(path).permissions(), fs::perms(0664));
}

TEST_F(Center_Page_File, none_is_nothing) { EXPECT_FALSE(read_center_page("/shm")); }

TEST_F(Center_Page_File, in_a_folder_that_does_not_exist_is_not_written) {
    EXPECT_FALSE(write_center_page("/missing", page_of(1)));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(read_center_page("/missing"));
}

TEST_F(Center_Page_File, removed_is_gone_and_removing_none_does_nothing) {
    ASSERT_TRUE(write_center_page("/shm", page_of(1)));
    zav_shm::remove_center_page("/shm");
    EXPECT_FALSE(exists("shm/center_page"));
    zav_shm::remove_center_page("/shm");
}

TEST_F(Center_Page_File, that_is_not_valid_is_nothing) {
    write_bytes(0, "");
    EXPECT_TRUE(read_center_page("/shm"));
    write_bytes(0, "ZAVF");
    EXPECT_FALSE(read_center_page("/shm"));
    write_bytes(4, std::string("\2\0", 2));
    EXPECT_FALSE(read_center_page("/shm"));
    write_bytes(8, std::string(8, '\0'));
    EXPECT_FALSE(read_center_page("/shm"));
    write_bytes(16, std::string(4, '\0'));
    EXPECT_FALSE(read_center_page("/shm"));
    for (const std::size_t length : {0U, 1U, 63U, 65U, 4096U}) {
        write_bytes(0, "", length);
        EXPECT_FALSE(read_center_page("/shm")) << length;
    }
}

TEST_F(Center_Page_File, link_folder_or_fifo_of_its_name_is_nothing_and_does_not_block) {
    ASSERT_TRUE(write_center_page("/shm", page_of(1)));
    fs::rename(path, "/dev/shm/shm/elsewhere");
    fs::create_symlink("/dev/shm/shm/elsewhere", path);
    EXPECT_FALSE(read_center_page("/shm"));
    fs::remove(path);
    fs::remove("/dev/shm/shm/elsewhere");
    fs::create_directory(path);
    EXPECT_FALSE(read_center_page("/shm"));
    fs::remove(path);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_FALSE(read_center_page("/shm"));
}

TEST_F(Center_Page_File, replaces_what_a_writer_that_was_killed_left_beside_it) {
    std::ofstream(path + ".new") << "half";
    ASSERT_TRUE(write_center_page("/shm", page_of(9)));
    EXPECT_FALSE(exists("shm/center_page.new"));
    EXPECT_EQ(read_center_page("/shm")->epoch, 9U);
}

TEST_F(Center_Page_File, is_never_read_in_part_while_it_is_replaced) {
    ASSERT_TRUE(write_center_page("/shm", page_of(1)));
    std::atomic<bool> ended{false};
    std::thread writer([&] {
        for (std::uint64_t epoch = 2; !ended; ++epoch) {
            write_center_page("/shm", page_of(epoch));
        }
    });
    std::uint64_t former = 0;
    for (int i = 0; i < 5000; ++i) {
        const auto page = read_center_page("/shm");
        ASSERT_TRUE(page.has_value());
        EXPECT_GE(page->epoch, former);
        former = page->epoch;
    }
    ended = true;
    writer.join();
}

// ---- whether the host lives ----

Center_Page page_of_process(pid_t pid) {
    Center_Page page;
    page.epoch = 1;
    page.pid = static_cast<std::uint32_t>(pid);
    return page;
}

TEST_F(Center_Page_File, without_the_flag_tells_by_the_process_id) {
    EXPECT_FALSE(zav_shm::is_center_alive("/shm"));
    ASSERT_TRUE(write_center_page("/shm", page_of_process(getpid())));
    EXPECT_TRUE(zav_shm::is_center_alive("/shm"));
    ASSERT_TRUE(write_center_page("/shm", page_of_process(gone_pid())));
    EXPECT_FALSE(zav_shm::is_center_alive("/shm"));
}

TEST_F(Center_Page_File, tells_of_the_center_that_wrote_it_and_of_no_other) {
    const pid_t gone = gone_pid();
    const auto held = zav_shm::hold_center_page("/shm", page_of_process(gone));
    EXPECT_TRUE(zav_shm::is_center_alive("/shm", gone)) << "it is in another PID namespace";
    EXPECT_TRUE(zav_shm::is_center_alive("/shm", getpid()));
    EXPECT_FALSE(zav_shm::is_center_alive("/shm", gone_pid()));
    EXPECT_FALSE(zav_shm::is_center_alive("/other", gone));
    EXPECT_FALSE(zav_shm::is_center_alive("/shm", 0));
    EXPECT_FALSE(zav_shm::is_center_alive("/shm", -1));
}

// Its process id may be that of another process by then; in a container it nearly always is.
TEST_F(Center_Page_File, that_nobody_holds_any_more_is_that_of_a_dead_center) {
    {
        const auto held = zav_shm::hold_center_page("/shm", page_of_process(getpid()), {0640, 0});
        ASSERT_TRUE(held.is_open());
        EXPECT_TRUE(zav_shm::is_center_alive("/shm"));
        EXPECT_EQ(read_center_page("/shm")->flags, zav_shm::center_page_is_held);
        EXPECT_EQ(fs::status(path).permissions(), fs::perms(0640));
    }
    EXPECT_FALSE(zav_shm::is_center_alive("/shm"));
}

TEST_F(Center_Page_File, is_held_beside_its_predecessor) {
    auto held = zav_shm::hold_center_page("/shm", page_of(1));
    held = zav_shm::hold_center_page("/shm", page_of(2));
    EXPECT_TRUE(zav_shm::is_center_alive("/shm"));
    EXPECT_EQ(read_center_page("/shm")->epoch, 2U);
    EXPECT_FALSE(zav_shm::hold_center_page("/missing", page_of(1)).is_open());
    EXPECT_EQ(errno, ENOENT);
}

// There, this process has no id at all.
TEST_F(Center_Page_File, tells_a_process_of_another_pid_namespace_that_the_center_lives) {
    auto held = zav_shm::hold_center_page("/shm", page_of_process(getpid()));
    EXPECT_EQ(result_in_pid_namespace([] { return zav_shm::is_center_alive("/shm") ? 7 : 8; }), 7);
    held = zav_shm::Descriptor();
    EXPECT_EQ(result_in_pid_namespace([] { return zav_shm::is_center_alive("/shm") ? 7 : 8; }), 8);
}

}  // namespace
