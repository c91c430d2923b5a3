// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>

namespace zav_shm {

// The route page, version 1: the 64 bytes of /dev/shm/<folder>/rings/<consumer>_<channel>_<stream>
// .route, by which the center tells a consumer that reads rings whose ring that is. Device byte
// order.
//
//   off size field     unit  rule
//     0   4  magic     -     "ZAVT"
//     4   2  version   -     1
//     6   2  source    -     where the producer's frames are: 0 nobody has said, 1 in its ring,
//                            2 in its slot alone
//     8   8  serial    -     another one in each page that is written, never 0
//    16  32  producer  -     its name, ended by zero bytes; empty: nobody feeds the consumer
//    48  16  reserved  -     0
//
// The center replaces the page, by renaming another one over it, when somebody has paired the
// consumer anew, or its producer has begun to use the other of ring and slot. Then it wakes who
// sleeps at the ring that was the route until then. The page goes when the consumer leaves; a
// killed center leaves it, and the next removes it.
struct alignas(8) Route_Page {
    enum Source : std::uint16_t { unknown = 0, ring = 1, slot = 2 };

    char magic[4] = {'Z', 'A', 'V', 'T'};
    std::uint16_t version = 1;
    std::uint16_t source = unknown;
    std::uint64_t serial = 0;
    char producer[32] = {};
    unsigned char reserved[16] = {};
};
static_assert(sizeof(Route_Page) == 64);
static_assert(offsetof(Route_Page, source) == 6);
static_assert(offsetof(Route_Page, serial) == 8);
static_assert(offsetof(Route_Page, producer) == 16);
static_assert(std::is_trivially_copyable_v<Route_Page>);

/// Where in a ring's file its readers sleep.
inline constexpr std::size_t ring_sleep_offset = 64;

/// What a consumer's page says.
struct Route {
    std::string producer;  // empty: nobody
    Route_Page::Source source = Route_Page::unknown;
    std::uint64_t serial = 0;
};

/// "/dev/shm/shm/rings/PLAYER_0_1.route"
std::string route_path(const std::string& rings_folder, const std::string& consumer, int channel,
                       int stream);

/// @return nothing when there is no page, it may not be read, or it is not a valid one.
std::optional<Route> read_route(const std::string& path);

/// Replaces the page, or makes it, readable for whoever may list its folder.
///
/// @return false with errno; then the former page is still there.
bool write_route(const std::string& path, const Route& route);

}  // namespace zav_shm
