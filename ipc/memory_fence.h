// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace zav_shm {

// ThreadSanitizer knows no fences, and g++ warns of each. Nothing is lost: writer and reader have
// mappings of their own, so that it does not see them share the slot either.
#ifdef __SANITIZE_THREAD__
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wtsan"
#endif

/// Keeps what is written after it behind what was stored before it.
inline void release_fence() { __atomic_thread_fence(__ATOMIC_RELEASE); }

/// Keeps what is loaded after it behind what was read before it.
inline void acquire_fence() { __atomic_thread_fence(__ATOMIC_ACQUIRE); }

/// Keeps what is loaded after it behind what was stored before it, as well.
inline void full_fence() { __atomic_thread_fence(__ATOMIC_SEQ_CST); }

#ifdef __SANITIZE_THREAD__
#pragma GCC diagnostic pop
#endif

}  // namespace zav_shm
