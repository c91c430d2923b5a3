// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>

#include "bindings/c/zav_shm.h"

// The handles of the C interface. A handle is a number that is given out once in the life of the
// process, so that one that is closed is told from all that are open: there is nothing to follow
// into freed memory. What a call works on stays until the call ends, also when another thread
// closes the handle meanwhile.
//
// Threads  any.
// Exit     what is still open is left as it is: its threads may be running.
// Fork     the child has the table, and every handle in it counts as closed.

namespace zav_shm::c_interface {

enum class Kind : std::uint64_t { publisher = 1, subscriber = 2, view = 3 };

template <class Object>
struct Found {
    std::shared_ptr<Object> object;  // null: not open, and the error has been noted
    zav_shm_status status = ZAV_SHM_OK;
};

std::uint64_t add_handle(Kind kind, std::shared_ptr<void> object);
Found<void> find_handle(Kind kind, std::uint64_t handle);

/// The same, and the handle is closed from then on.
Found<void> take_handle(Kind kind, std::uint64_t handle);

/// The object of a class that names its `kind`.
template <class Object>
Found<Object> find(std::uint64_t handle) {
    auto found = find_handle(Object::kind, handle);
    return {std::static_pointer_cast<Object>(found.object), found.status};
}

template <class Object>
Found<Object> take(std::uint64_t handle) {
    auto found = take_handle(Object::kind, handle);
    return {std::static_pointer_cast<Object>(found.object), found.status};
}

}  // namespace zav_shm::c_interface
