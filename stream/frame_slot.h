// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>

// A stream's slot: one segment of page size + 128 bytes that holds exactly one frame. A new
// frame overwrites the former in place. Device byte order.
//
//   off size            field
//     0  128            frame header: the producer's first 128 bytes, copied unchanged; the
//                       application's own, apart from the payload length
//    16    4            payload length in bytes, 0 .. page size
//   128  payload length payload
//
// The slot itself has no version, sequence number or checksum: the order of the semaphore
// posts keeps writer and readers apart (see docs/protocol.md).

/// The frame record that producers hand to distribute_frame and consumers to receive_frame.
///
/// `payload` belongs to the caller, is never written to the slot, and on the consumer's side
/// must have room for the page size of the stream.
struct STREAM_FRAME_FORMAT {
    unsigned char header_front[16];
    std::uint32_t payload_length;  // bytes
    unsigned char header_back[108];
    void* payload;
};

namespace zav_shm {

inline constexpr std::size_t frame_header_bytes = 128;
inline constexpr std::size_t payload_length_offset = 16;

}  // namespace zav_shm

static_assert(offsetof(STREAM_FRAME_FORMAT, payload_length) == zav_shm::payload_length_offset);
static_assert(offsetof(STREAM_FRAME_FORMAT, payload) == zav_shm::frame_header_bytes);
