// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "bindings/c/zav_shm.h"

namespace zav_shm::c_interface {

/// Keeps the message for zav_shm_last_error() of this thread. Never throws: without memory for it,
/// the message is the status' name.
///
/// @return the status
zav_shm_status fail(zav_shm_status status, const std::string& message) noexcept;

/// Within a catch (...): the status for what is being caught, with its message.
zav_shm_status fail_for_exception() noexcept;

/// Runs what returns a status. Nothing that it throws gets out.
template <class Call>
zav_shm_status guarded(const Call& call) noexcept {
    try {
        return call();
    } catch (...) {
        return fail_for_exception();
    }
}

/// "publish(): payload is NULL"
inline zav_shm_status fail_for_null(const char* what) {
    return fail(ZAV_SHM_BAD_ARGUMENT, std::string(what) + " is NULL");
}

}  // namespace zav_shm::c_interface
