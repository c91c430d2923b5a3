// SPDX-License-Identifier: Apache-2.0
#include "bindings/c/view.h"

#include "bindings/c/errors.h"

using namespace zav_shm::c_interface;

zav_shm_status zav_shm_view_is_whole(zav_shm_view view, int* whole) {
    return guarded([&]() -> zav_shm_status {
        const auto found = find<View>(view);
        if (!found.object) {
            return found.status;
        }
        if (whole == nullptr) {
            return fail_for_null("whole");
        }
        const std::unique_lock lock(found.object->filling, std::try_to_lock);
        if (!lock.owns_lock()) {
            return fail(ZAV_SHM_BUSY, "another thread uses this view");
        }
        *whole = found.object->view.is_whole() ? 1 : 0;
        return ZAV_SHM_OK;
    });
}

zav_shm_status zav_shm_view_release(zav_shm_view view) {
    return guarded([&]() -> zav_shm_status {
        const auto found = find<View>(view);
        if (!found.object) {
            return found.status;
        }
        const std::unique_lock lock(found.object->filling, std::try_to_lock);
        if (!lock.owns_lock()) {
            return fail(ZAV_SHM_BUSY, "another thread uses this view");
        }
        return take<View>(view).status;
    });
}
