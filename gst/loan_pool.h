// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gst/gst.h>

#include <memory>

#include "gst/sink_stream.h"

namespace zav_shm::gst {

/// A pool that zavsink offers upstream. Its buffers are room in the stream's history where that can
/// be lent (see Lending), else ordinary memory: whoever acquires one sees no difference.
///
/// @param size  of each buffer in bytes
/// @return a new reference.
GstBufferPool* new_loan_pool(std::shared_ptr<Sink_Stream> stream, GstCaps* caps, guint size);

/// Whether the buffer was acquired from such a pool.
bool is_of_loan_pool(GstBuffer* buffer);

/// What a buffer's memory has to do with loans.
struct Loaned {
    const Sink_Stream::Loan* loan = nullptr;  // the buffer is this one, from its begin on
    bool is_piece = false;                    // it lies in one, and is not all of it
};
Loaned loan_of(GstBuffer* buffer);

}  // namespace zav_shm::gst
