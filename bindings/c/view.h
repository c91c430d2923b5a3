// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <mutex>

#include "bindings/c/handles.h"
#include "frame/frame_view.h"

namespace zav_shm::c_interface {

/// What a handle of a view stands for.
struct View {
    static constexpr Kind kind = Kind::view;

    std::mutex filling;  // held by receive_view(), and by who looks at the view
    Frame_View view;     // guarded by the mutex
};

}  // namespace zav_shm::c_interface
