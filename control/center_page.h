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
//     6   2  reserved         -      0
//     8   8  epoch            -      random per start, never 0
//    16   4  pid              -      of the center, as it sees itself
//    20   4  semaphore_bytes  bytes  sizeof(sem_t) of the center: processes for which it differs
//                                    (32- beside 64-bit ones) cannot share a channel with it
//    24   8  started_utc_ns   ns     since 1970, UTC
//    32  32  reserved         -      0
//
// The center's host writes it just before it lets requests in and removes it at an orderly end. A
// killed one leaves it, and the next replaces it: a page alone does not say that a center runs.
struct alignas(8) Center_Page {
    char magic[4] = {'Z', 'A', 'V', 'C'};
    std::uint16_t version = 1;
    std::uint16_t reserved_1 = 0;
    std::uint64_t epoch = 0;
    std::uint32_t pid = 0;
    std::uint32_t semaphore_bytes = 0;
    std::uint64_t started_utc_ns = 0;
    unsigned char reserved_2[32] = {};
};
static_assert(sizeof(Center_Page) == 64);
static_assert(offsetof(Center_Page, version) == 4);
static_assert(offsetof(Center_Page, epoch) == 8);
static_assert(offsetof(Center_Page, pid) == 16);
static_assert(offsetof(Center_Page, semaphore_bytes) == 20);
static_assert(offsetof(Center_Page, started_utc_ns) == 24);
static_assert(offsetof(Center_Page, reserved_2) == 32);
static_assert(std::is_trivially_copyable_v<Center_Page>);

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

/// Removes the page, if there is one.
void remove_center_page(const std::string& folder);

}  // namespace zav_shm
