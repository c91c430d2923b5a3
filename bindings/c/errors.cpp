// SPDX-License-Identifier: Apache-2.0
#include "bindings/c/errors.h"

#include <exception>
#include <new>

#include "frame/frame_format.h"

namespace zav_shm::c_interface {

namespace {

struct Message {
    std::string text;
    const char* fixed = "";  // in place of a text that there was no memory for
};

thread_local Message latest;

}  // namespace

zav_shm_status fail(zav_shm_status status, const std::string& message) noexcept {
    try {
        latest.text = message;
    } catch (...) {
        latest.text.clear();
        latest.fixed = zav_shm_status_name(status);
    }
    return status;
}

zav_shm_status fail_for_exception() noexcept {
    try {
        throw;
    } catch (const std::bad_alloc&) {
        latest.text.clear();
        latest.fixed = "there is no memory for it";
        return ZAV_SHM_NO_MEMORY;
    } catch (const std::exception& caught) {
        latest.text.clear();
        latest.fixed = "the system refused it";
        try {
            latest.text = caught.what();
        } catch (...) {  // the fixed one stands
        }
    } catch (...) {
        latest.text.clear();
        latest.fixed = "it failed for a reason that has no name";
    }
    return ZAV_SHM_FAILED;
}

}  // namespace zav_shm::c_interface

const char* zav_shm_last_error(void) {
    using zav_shm::c_interface::latest;
    return latest.text.empty() ? latest.fixed : latest.text.c_str();
}

const char* zav_shm_status_name(int status) {
    switch (status) {
        case ZAV_SHM_OK:
            return "ok";
        case ZAV_SHM_TIMEOUT:
            return "timeout";
        case ZAV_SHM_INTERRUPTED:
            return "interrupted";
        case ZAV_SHM_NOT_CONNECTED:
            return "not connected";
        case ZAV_SHM_CLOSED:
            return "closed";
        case ZAV_SHM_BAD_HANDLE:
            return "bad handle";
        case ZAV_SHM_BAD_ARGUMENT:
            return "bad argument";
        case ZAV_SHM_BAD_SIZE:
            return "bad size";
        case ZAV_SHM_BUSY:
            return "busy";
        case ZAV_SHM_TOO_LARGE:
            return "too large";
        case ZAV_SHM_REFUSED:
            return "refused";
        case ZAV_SHM_NO_RING:
            return "no history";
        case ZAV_SHM_SMALL_BUFFER:
            return "small buffer";
        case ZAV_SHM_NOT_SERVED:
            return "not served";
        case ZAV_SHM_NO_MEMORY:
            return "no memory";
        case ZAV_SHM_FAILED:
            return "failed";
        default:
            return "unknown status";
    }
}

const char* zav_shm_state_name(int state) {
    if (state < ZAV_SHM_STATE_CLOSED || state > ZAV_SHM_STATE_NO_RING) {
        return "unknown state";
    }
    return zav_shm::name_of(static_cast<zav_shm::Frame_State>(state));
}

const char* zav_shm_version(void) { return ZAV_SHM_LIBRARY_VERSION; }
