// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/limits.h"

#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <optional>

namespace zav_shm::centerd {

namespace {

// Standard streams, locks, loop, timers, and what is open for a moment only.
constexpr std::uint64_t descriptors_needed = 32;

// Nothing when there is no limit.
std::optional<std::uint64_t> limit_of(__rlimit_resource_t resource) {
    rlimit limit{};
    if (getrlimit(resource, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
        return {};
    }
    return limit.rlim_cur;
}

std::uint64_t greatest_segment(const Inventory& inventory) {
    std::uint64_t greatest = 0;
    for (const Shared_File& segment : inventory.segments) {
        greatest = std::max(greatest, segment.bytes);
    }
    return greatest;
}

std::uint64_t address_space_in_use() {
    std::uint64_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return pages * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

std::size_t stack_bytes() {
    pthread_attr_t attributes;
    std::size_t stack = 0;
    if (pthread_getattr_default_np(&attributes) == 0) {
        pthread_attr_getstacksize(&attributes, &stack);
        pthread_attr_destroy(&attributes);
    }
    return stack;
}

// What glibc does for a new thread.
bool is_there_memory_for_a_stack(std::size_t bytes) {
    void* const stack = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                             MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (stack == MAP_FAILED) {
        return false;
    }
    munmap(stack, bytes);
    return true;
}

// "RLIMIT_AS is 60000000 bytes, of which 55000000 are used"; empty without a limit.
std::string address_space_text() {
    const auto limit = limit_of(RLIMIT_AS);
    return limit ? "RLIMIT_AS is " + std::to_string(*limit) + " bytes, of which " +
                       std::to_string(address_space_in_use()) + " are used"
                 : std::string();
}

}  // namespace

Outcome check_limits(const Inventory& inventory) {
    const auto file_bytes = limit_of(RLIMIT_FSIZE);
    if (file_bytes && *file_bytes < greatest_segment(inventory)) {
        return failure(Exit_Status::system_error, "RLIMIT_FSIZE is " + std::to_string(*file_bytes) +
                                                      " bytes, the greatest segment has " +
                                                      std::to_string(greatest_segment(inventory)) +
                                                      "; raise the limit (ulimit -f, LimitFSIZE=)");
    }
    const auto descriptors = limit_of(RLIMIT_NOFILE);
    if (descriptors && *descriptors < descriptors_needed) {
        return failure(Exit_Status::system_error,
                       "RLIMIT_NOFILE is " + std::to_string(*descriptors) + " descriptors, " +
                           std::to_string(descriptors_needed) +
                           " are needed; raise the limit (ulimit -n, LimitNOFILE=)");
    }
    return std::nullopt;
}

// Each segment is locked while it is mapped, which is one at a time; root has no limit.
std::vector<std::string> limit_warnings(const Inventory& inventory) {
    const std::uint64_t greatest = Inventory::in_pages(greatest_segment(inventory));
    const auto locked_bytes = limit_of(RLIMIT_MEMLOCK);
    if (geteuid() == 0 || !locked_bytes || *locked_bytes >= greatest) {
        return {};
    }
    return {"RLIMIT_MEMLOCK is " + std::to_string(*locked_bytes) +
            " bytes, the greatest segment has " + std::to_string(greatest) +
            ": segments are not locked into memory and may be swapped out; raise the limit "
            "(LimitMEMLOCK=, ulimit -l)"};
}

// The system reports a lack of memory for the stack and one of threads by the same error.
std::string limit_on_threads() {
    const std::size_t stack = stack_bytes();
    const auto limit = limit_of(RLIMIT_AS);
    const bool is_near_the_limit = limit && address_space_in_use() + 2 * stack > *limit;
    if (is_near_the_limit) {
        return address_space_text() + ", and each thread's stack takes " + std::to_string(stack) +
               "; raise the limit (ulimit -v, LimitAS=), or make stacks smaller (ulimit -s, "
               "LimitSTACK=)";
    }
    if (!is_there_memory_for_a_stack(stack)) {
        return "there is no memory for another stack of " + std::to_string(stack) +
               " bytes; make stacks smaller (ulimit -s, LimitSTACK=), or see "
               "vm.overcommit_memory and vm.max_map_count";
    }
    return "raise the limit of threads (ulimit -u, TasksMax=, kernel.threads-max)";
}

Failure out_of_memory() {
    const std::string text = address_space_text();
    return failure(
        Exit_Status::system_error,
        "out of memory: " + (text.empty() ? "see what the machine and the service have (MemoryMax=)"
                                          : text + "; raise the limit (ulimit -v, LimitAS=)"));
}

}  // namespace zav_shm::centerd
