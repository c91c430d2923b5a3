// SPDX-License-Identifier: Apache-2.0
#include "support/kernel_objects.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <thread>

#include "ipc/zav_shm.h"
#include "support/threads.h"

namespace fs = std::filesystem;

namespace {

const fs::path memory_directory = "/dev/shm";

std::set<std::string> files_in_shared_memory() {
    std::set<std::string> found;
    for (const auto& entry : fs::recursive_directory_iterator(memory_directory)) {
        if (!entry.is_directory()) {
            found.insert(entry.path().lexically_relative(memory_directory));
        }
    }
    return found;
}

// The iterator's own descriptor is closed again by the time that the links are read.
std::set<std::string> open_descriptors() {
    std::set<std::string> links;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        links.insert(entry.path());
    }
    std::set<std::string> open;
    for (const auto& link : links) {
        std::error_code gone;
        const fs::path target = fs::read_symlink(link, gone);
        if (!gone) {
            open.insert(link + " -> " + target.string());
        }
    }
    return open;
}

std::size_t message_queues() {
    std::ifstream list("/proc/sysvipc/msg");
    const auto lines = std::count(std::istreambuf_iterator<char>(list), {}, '\n');
    return lines > 0 ? static_cast<std::size_t>(lines - 1) : 0;  // without the heading
}

}  // namespace

void Kernel_Objects::SetUp() {
    ASSERT_EQ(files_in_shared_memory(), std::set<std::string>{}) << "/dev/shm is not private";
    IPC_SHMEMORY::set_root_path("/dev/shm");
    descriptors_ = open_descriptors();
    std::thread([] {}).join();  // a thread sanitizer starts a thread of its own with the first
    threads_ = thread_count();
}

void Kernel_Objects::TearDown() {
    EXPECT_EQ(files_in_shared_memory(), leftovers_);
    EXPECT_EQ(message_queues(), 0U);
    // A thread that is on its way out may still hold some.
    becomes_true([this] { return open_descriptors() == descriptors_; });
    EXPECT_EQ(open_descriptors(), descriptors_);
    EXPECT_TRUE(becomes_true([this] { return thread_count() <= threads_; }))
        << thread_count() << " threads, " << threads_ << " before the test";
    for (const auto& file : files_in_shared_memory()) {
        fs::remove(memory_directory / file);
    }
    for (const auto& folder : folders_) {
        fs::remove_all(memory_directory / folder);
    }
}

void Kernel_Objects::leaves_segment(const std::string& name) {
    leftovers_.insert(name.substr(name.find_first_not_of('/')));
}

void Kernel_Objects::leaves_semaphore(const std::string& name) {
    leftovers_.insert("sem." + name.substr(name.find_first_not_of('/')));
}

void Kernel_Objects::leaves_semaphores(const IPC_SHM_CTRL_INFO& names) {
    leaves_semaphore(names.sem_path_src);
    leaves_semaphore(names.sem_path_dst);
    leaves_semaphore(names.sem_path_exist);
}

void Kernel_Objects::make_folder(const std::string& name) {
    fs::create_directories(memory_directory / name);
    folders_.insert(name.substr(0, name.find('/')));
}

bool Kernel_Objects::exists(const std::string& file) { return fs::exists(memory_directory / file); }
