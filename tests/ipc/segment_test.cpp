// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ipc/zav_shm.h"
#include "support/capture.h"
#include "support/kernel_objects.h"

namespace {

constexpr int create_flags = O_CREAT | O_RDWR;
constexpr unsigned unknown_size = 0xFFFFFFFFU;

class Segment : public Kernel_Objects {
protected:
    void SetUp() override {
        Kernel_Objects::SetUp();
        make_folder("shm");
    }

    // Makes a segment that begins with `text`.
    void make(const std::string& name, int size, const char* text = "") {
        leaves_segment(name);
        const IPC_SHMEMORY segment(name.c_str(), create_flags, 0600, size);
        ASSERT_TRUE(segment.is_mapped());
        std::strcpy(static_cast<char*>(segment.mem_addr), text);
    }

    static const char* text_in(const IPC_SHMEMORY& segment) {
        return static_cast<const char*>(segment.mem_addr);
    }
};

TEST_F(Segment, in_a_folder_is_made_where_its_name_says) {
    leaves_segment("/shm/X_0_0");
    EXPECT_EQ(output_of([] {
                  const IPC_SHMEMORY segment("/shm/X_0_0", create_flags, 0600, 4224);
                  EXPECT_TRUE(segment.is_mapped());
                  EXPECT_EQ(segment.size, 4224U);
                  EXPECT_EQ(segment.get_shm_path(), "/shm/X_0_0");
              }),
              "");
    struct stat status {};
    ASSERT_EQ(stat("/dev/shm/shm/X_0_0", &status), 0);
    EXPECT_EQ(status.st_size, 4224);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST_F(Segment, without_a_folder_is_made_at_the_top) {
    make("/X_0_0", 100);
    EXPECT_TRUE(exists("X_0_0"));
}

TEST_F(Segment, has_its_memory_reserved) {
    make("/shm/X_0_0", 100'000);
    struct stat status {};
    ASSERT_EQ(stat("/dev/shm/shm/X_0_0", &status), 0);
    EXPECT_GE(status.st_blocks * 512, 100'000);
}

TEST_F(Segment, outlives_its_handle_and_can_be_opened_again) {
    make("/shm/X_0_0", 4224, "first");
    {
        const IPC_SHMEMORY writer("/shm/X_0_0", O_RDWR);
        ASSERT_TRUE(writer.is_mapped());
        EXPECT_EQ(writer.size, 4224U);
        EXPECT_STREQ(text_in(writer), "first");
        std::strcpy(static_cast<char*>(writer.mem_addr), "second");
    }
    const IPC_SHMEMORY reader("/shm/X_0_0", O_RDONLY);
    EXPECT_STREQ(text_in(reader), "second");
}

TEST_F(Segment, closes_its_descriptor_after_mapping_and_keeps_the_number) {
    make("/shm/X_0_0", 4224);
    const IPC_SHMEMORY segment("/shm/X_0_0", O_RDONLY);
    EXPECT_GE(segment.sid, 0);
    EXPECT_EQ(fcntl(segment.sid, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(Segment, opened_and_never_mapped_leaves_no_descriptor) {
    make("/shm/X_0_0", 4224);
    output_of([] {
        IPC_SHMEMORY segment("/MISSING", O_RDONLY);
        EXPECT_TRUE(segment.zav_shm_open("/shm/X_0_0", O_RDONLY));
        EXPECT_TRUE(segment.zav_shm_open("/shm/X_0_0", O_RDONLY));
    });
}

TEST_F(Segment, mapped_again_after_its_descriptor_is_gone_fails) {
    make("/shm/X_0_0", 4224);
    IPC_SHMEMORY segment("/shm/X_0_0", O_RDWR);
    EXPECT_EQ(output_of([&] {
                  EXPECT_FALSE(segment.zav_shm_map_rw());
                  EXPECT_EQ(segment.mem_addr, MAP_FAILED);
                  EXPECT_FALSE(segment.zav_shm_map_readonly());
              }),
              "Map Fail...Bad file descriptor\n"
              "zav_shm_map_readonly mmap fail Bad file descriptor\n");
    EXPECT_EQ(output_of([&] { EXPECT_EQ(segment.zav_shm_close(), -1); }), "Munmap  fail\n");
    segment.mem_addr = nullptr;
}

TEST_F(Segment, opened_read_only_cannot_be_written) {
    make("/shm/X_0_0", 4224);
    IPC_SHMEMORY segment("/shm/X_0_0", O_RDONLY);
    EXPECT_NE(mprotect(segment.mem_addr, segment.size, PROT_READ | PROT_WRITE), 0);
    EXPECT_EQ(errno, EACCES);
}

TEST_F(Segment, of_a_missing_folder_prints_and_stays_unmapped) {
    EXPECT_EQ(output_of([] {
                  const IPC_SHMEMORY segment("/nowhere/X_0_0", create_flags, 0600, 4224);
                  EXPECT_LT(segment.sid, 0);
                  EXPECT_EQ(segment.mem_addr, nullptr);
              }),
              "Shm open /nowhere/X_0_0 fail No such file or directory\n");
}

TEST_F(Segment, that_does_not_exist_opens_silently_unmapped) {
    EXPECT_EQ(output_of([] {
                  const IPC_SHMEMORY segment("/shm/MISSING", O_RDWR);
                  EXPECT_LT(segment.sid, 0);
                  EXPECT_EQ(segment.mem_addr, nullptr);
                  EXPECT_EQ(segment.size, unknown_size);
              }),
              "");
}

TEST_F(Segment, unopened_is_not_mapped) {
    IPC_SHMEMORY segment("/shm/MISSING", O_RDWR);
    EXPECT_EQ(output_of([&] { EXPECT_FALSE(segment.zav_shm_map_rw()); }), "");
    EXPECT_EQ(output_of([&] { EXPECT_FALSE(segment.zav_shm_map_readonly()); }),
              "In zav_shm_map_readonly sid -1 is less than 0\n");
    EXPECT_EQ(segment.mem_addr, nullptr);
}

TEST_F(Segment, of_unknown_size_is_not_mapped) {
    make("/shm/X_0_0", 4224);
    IPC_SHMEMORY::set_root_path("/somewhere/else");
    EXPECT_EQ(output_of([] {
                  const IPC_SHMEMORY segment("/shm/X_0_0", O_RDWR);
                  EXPECT_EQ(segment.size, unknown_size);
                  EXPECT_EQ(segment.mem_addr, MAP_FAILED);
                  EXPECT_FALSE(segment.is_mapped());
                  EXPECT_EQ(segment.mapped_bytes(), 0U);
              }),
              "Map Fail...Cannot allocate memory\nMunmap  fail\n");
    EXPECT_EQ(output_of([] { EXPECT_FALSE(IPC_SHMEMORY("/shm/X_0_0", O_RDONLY).is_mapped()); }),
              "zav_shm_map_readonly mmap fail Cannot allocate memory\nMunmap  fail\n");
}

TEST_F(Segment, shorter_than_its_handle_says_is_not_mapped) {
    make("/shm/X_0_0", 4224);
    output_of([] {
        IPC_SHMEMORY segment("/shm/MISSING", O_RDONLY);
        ASSERT_TRUE(segment.zav_shm_open("/shm/X_0_0", O_RDONLY));
        segment.size = 4225;
        EXPECT_FALSE(segment.zav_shm_map_readonly());
    });
}

TEST_F(Segment, of_size_zero_is_not_mapped) {
    leaves_segment("/shm/EMPTY");
    EXPECT_EQ(output_of([] {
                  const IPC_SHMEMORY segment("/shm/EMPTY", create_flags, 0600, 0);
                  EXPECT_EQ(segment.mem_addr, MAP_FAILED);
              }),
              "Map Fail...Invalid argument\n");
}

TEST_F(Segment, of_negative_size_is_refused) {
    EXPECT_EQ(output_of([] {
                  const IPC_SHMEMORY segment("/shm/X_0_0", create_flags, 0600, -1);
                  EXPECT_EQ(segment.mem_addr, nullptr);
              }),
              "Shm open /shm/X_0_0 fail Invalid argument\n");
    EXPECT_FALSE(exists("shm/X_0_0"));
}

TEST_F(Segment, names_that_are_null_empty_overlong_or_climbing_are_refused) {
    const std::string overlong = "/" + std::string(255, 'N');
    output_of([&] {
        for (const char* name : {static_cast<const char*>(nullptr), "", "/", "/../escaped",
                                 "/shm/../../escaped", overlong.c_str()}) {
            const IPC_SHMEMORY created(name, create_flags, 0600, 128);
            EXPECT_EQ(created.mem_addr, nullptr);
            const IPC_SHMEMORY opened(name, O_RDWR);
            EXPECT_EQ(opened.mem_addr, nullptr);
        }
        const IPC_SHMEMORY refused(overlong.c_str(), create_flags, 0600, 128);
        EXPECT_EQ(refused.get_shm_path(), "");
    });
}

TEST_F(Segment, does_not_follow_a_symbolic_link) {
    make("/shm/X_0_0", 128);
    leaves_segment("/shm/LINK");
    ASSERT_EQ(symlink("/dev/shm/shm/X_0_0", "/dev/shm/shm/LINK"), 0);
    output_of([] { EXPECT_EQ(IPC_SHMEMORY("/shm/LINK", O_RDWR).mem_addr, nullptr); });
}

TEST_F(Segment, closed_has_an_empty_path_and_nothing_mapped) {
    make("/shm/X_0_0", 4224);
    IPC_SHMEMORY segment("/shm/X_0_0", O_RDWR);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(segment.zav_shm_close(), 0); }), "");
    EXPECT_EQ(segment.get_shm_path(), "");
    EXPECT_EQ(segment.mem_addr, nullptr);
    EXPECT_EQ(segment.size, 0U);
    EXPECT_EQ(segment.zav_shm_close(), 0);
}

TEST_F(Segment, last_byte_of_the_name_field_survives_storing_and_clearing) {
    make("/shm/X_0_0", 4224);
    IPC_SHMEMORY segment("/shm/X_0_0", O_RDWR);
    segment.name[254] = 'a';
    segment.name[255] = 'b';
    segment.zav_shm_close();
    EXPECT_EQ(segment.name[254], '\0');
    EXPECT_EQ(segment.name[255], 'b');
    EXPECT_TRUE(segment.zav_shm_open("/shm/X_0_0", O_RDWR));
    EXPECT_EQ(segment.name[255], 'b');
    EXPECT_EQ(segment.get_shm_path(), "/shm/X_0_0");
}

TEST_F(Segment, destroyed_by_name_is_removed) {
    make("/shm/X_0_0", 4224);
    IPC_SHMEMORY segment("/shm/X_0_0", O_RDWR);
    EXPECT_EQ(segment.zav_shm_destroy(), 0);
    EXPECT_FALSE(exists("shm/X_0_0"));
    EXPECT_EQ(segment.zav_shm_destroy(), -1);
    make("/shm/X_0_0", 4224);  // announced, so it must be there again
}

TEST_F(Segment, handles_are_equal_when_their_names_are) {
    make("/shm/X_0_0", 4224);
    make("/shm/X_0_1", 4224);
    const IPC_SHMEMORY one("/shm/X_0_0", O_RDWR);
    const IPC_SHMEMORY same("/shm/X_0_0", O_RDONLY);
    const IPC_SHMEMORY other("/shm/X_0_1", O_RDWR);
    EXPECT_TRUE(one == same);
    EXPECT_FALSE(one == other);
}

TEST_F(Segment, size_lookup_reads_the_file_below_the_root_path) {
    make("/shm/X_0_0", 4224);
    EXPECT_EQ(IPC_SHMEMORY::get_shm_path_size("/shm/X_0_0"), 4224U);
    EXPECT_EQ(IPC_SHMEMORY::get_shm_path_size("/shm/MISSING"), unknown_size);
    EXPECT_EQ(IPC_SHMEMORY::get_shm_path_size(nullptr), unknown_size);
}

TEST_F(Segment, size_lookup_fails_on_descriptor_zero) {
    make("/shm/X_0_0", 4224);
    const int saved = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    EXPECT_EQ(IPC_SHMEMORY::get_shm_path_size("/shm/X_0_0"), unknown_size);
    dup2(saved, STDIN_FILENO);
    close(saved);
}

TEST_F(Segment, change_to_another_maps_it_read_only) {
    make("/shm/X_0_0", 4224, "first");
    make("/shm/X_0_1", 8320, "second");
    IPC_SHMEMORY segment("/shm/X_0_0", O_RDWR);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(segment.shm_change_path("/shm/X_0_1"), 1); }),
              "Change SHM from /shm/X_0_0 to /shm/X_0_1\n");
    EXPECT_EQ(segment.get_shm_path(), "/shm/X_0_1");
    EXPECT_EQ(segment.size, 8320U);
    EXPECT_STREQ(text_in(segment), "second");
    EXPECT_NE(mprotect(segment.mem_addr, segment.size, PROT_READ | PROT_WRITE), 0);
}

TEST_F(Segment, change_to_the_current_name_keeps_the_mapping) {
    make("/shm/X_0_0", 4224);
    IPC_SHMEMORY segment("/shm/X_0_0", O_RDWR);
    void* const before = segment.mem_addr;
    EXPECT_EQ(output_of([&] { EXPECT_EQ(segment.shm_change_path("/shm/X_0_0"), 0); }),
              "Change SHM from /shm/X_0_0 to /shm/X_0_0\n");
    EXPECT_EQ(segment.mem_addr, before);
    EXPECT_EQ(segment.size, 4224U);
}

TEST_F(Segment, change_to_nothing_leaves_nothing_mapped) {
    make("/shm/X_0_0", 4224);
    IPC_SHMEMORY segment("/shm/X_0_0", O_RDWR);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(segment.shm_change_path(""), 2); }),
              "Change SHM from /shm/X_0_0 to \n");
    EXPECT_EQ(segment.mem_addr, nullptr);
    IPC_SHMEMORY other("/shm/X_0_0", O_RDWR);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(other.shm_change_path(nullptr), 2); }), "");
    EXPECT_EQ(other.mem_addr, nullptr);
}

TEST_F(Segment, change_to_a_missing_name_leaves_nothing_mapped) {
    make("/shm/X_0_0", 4224);
    IPC_SHMEMORY segment("/shm/X_0_0", O_RDWR);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(segment.shm_change_path("/shm/MISSING"), 2); }),
              "Change SHM from /shm/X_0_0 to /shm/MISSING\n");
    EXPECT_EQ(segment.mem_addr, nullptr);
    EXPECT_FALSE(segment.is_mapped());
}

TEST_F(Segment, change_says_switched_even_when_mapping_fails) {
    make("/shm/X_0_0", 4224);
    leaves_segment("/shm/EMPTY");
    close(creat("/dev/shm/shm/EMPTY", 0600));
    IPC_SHMEMORY segment("/shm/X_0_0", O_RDWR);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(segment.shm_change_path("/shm/EMPTY"), 1); }),
              "Change SHM from /shm/X_0_0 to /shm/EMPTY\n"
              "zav_shm_map_readonly mmap fail Invalid argument\n");
    EXPECT_EQ(segment.mem_addr, MAP_FAILED);
}

TEST_F(Segment, that_has_no_room_is_refused_and_left_empty) {
    make_folder("small");
    ASSERT_EQ(mount("tmpfs", "/dev/shm/small", "tmpfs", 0, "size=64k"), 0);
    EXPECT_EQ(output_of([] {
                  const IPC_SHMEMORY segment("/small/X_0_0", create_flags, 0600, 1'048'704);
                  EXPECT_EQ(segment.mem_addr, nullptr);
              }),
              "");
    EXPECT_EQ(IPC_SHMEMORY::get_shm_path_size("/small/X_0_0"), 0U);
    ASSERT_EQ(umount("/dev/shm/small"), 0);
}

}  // namespace
