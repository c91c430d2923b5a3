// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>

#include "control/replaced_file.h"

namespace zav_shm {

// The center page, version 1: the 64 bytes of /dev/shm/<folder>/center_page, by which a client
// learns whether the center that it registered with is still the one that runs. Device byte order.
//
//   off size field            unit   rule
//     0   4  magic            -      "ZAVC"
//     4   2  version          -      1
//     6   2  flags            -      1: the file is held, see below; all others 0
//     8   8  epoch            -      random per start, never 0
//    16   4  pid              -      of the center, as it sees itself
//    20   4  semaphore_bytes  bytes  sizeof(sem_t) of the center: processes for which it differs
//                                    (32- beside 64-bit ones) cannot share a channel with it
//    24   8  started_utc_ns   ns     since 1970, UTC
//    32  32  reserved         -      0
//
// The center's host writes it just before it lets requests in and removes it at an orderly end. A
// killed one leaves it, and the next replaces it: a page alone does not say that a center runs. A
// host that sets flag 1 holds a write lock of its open file description (ipc/file_lock.h) on the
// file for as long as it lives. The kernel gives it up with the process, and it can be asked for
// from every PID namespace, where the process id means nothing or another process. Whoever does not
// know the flag reads the page as before, and so does who finds it without.
struct alignas(8) Center_Page {
    char magic[4] = {'Z', 'A', 'V', 'C'};
    std::uint16_t version = 1;
    std::uint16_t flags = 0;
    std::uint64_t epoch = 0;
    std::uint32_t pid = 0;
    std::uint32_t semaphore_bytes = 0;
    std::uint64_t started_utc_ns = 0;
    unsigned char reserved_2[32] = {};
};
static_assert(sizeof(Center_Page) == 64);
static_assert(offsetof(Center_Page, version) == 4);
static_assert(offsetof(Center_Page, flags) == 6);
static_assert(offsetof(Center_Page, epoch) == 8);
static_assert(offsetof(Center_Page, pid) == 16);
static_assert(offsetof(Center_Page, semaphore_bytes) == 20);
static_assert(offsetof(Center_Page, started_utc_ns) == 24);
static_assert(offsetof(Center_Page, reserved_2) == 32);
static_assert(std::is_trivially_copyable_v<Center_Page>);

inline constexpr std::uint16_t center_page_is_held = 1;  // a flag

/// Where the page of the segments' folder lies, "/dev/shm/shm/center_page". `folder` is written as
/// in the segments' names, "/shm"; the slash may be missing.
std::string center_page_path(const std::string& folder);

/// Reads the page.
///
/// @return nothing when there is none, it may not be read, or it is not a valid one (another
///         length, magic or version, epoch or pid 0).
std::optional<Center_Page> read_center_page(const std::string& folder);

/// Replaces the page, or makes it.
///
/// @return false with errno; then the former page is still there.
bool write_center_page(const std::string& folder, const Center_Page& page, File_Access access = {});

/// The same, and holds the page: for the center's host.
///
/// @return what holds it until it is destroyed; a closed descriptor, with errno, when the page
/// could
///         not be written. On a system without such locks the page is written without the flag.
Descriptor hold_center_page(const std::string& folder, const Center_Page& page,
                            File_Access access = {});

/// True when there is a page, and the host that wrote it lives: it holds it, or, without the flag,
/// there is a process of its id.
bool is_center_alive(const std::string& folder);

/// The same of the center with this process id, of which the page may say nothing: then whether
/// there is such a process.
bool is_center_alive(const std::string& folder, pid_t pid);

/// Removes the page, if there is one.
void remove_center_page(const std::string& folder);

}  // namespace zav_shm
