// SPDX-License-Identifier: Apache-2.0
#include "frame/frame_format.h"

namespace zav_shm {

const char* name_of(Publish_Outcome outcome) {
    switch (outcome) {
        case Publish_Outcome::published:
            return "published";
        case Publish_Outcome::too_large:
            return "too large";
        case Publish_Outcome::refused:
            return "refused";
        case Publish_Outcome::no_ring:
            return "no ring";
    }
    return "unknown";
}

const char* name_of(Frame_State state) {
    switch (state) {
        case Frame_State::closed:
            return "closed";
        case Frame_State::connected:
            return "connected";
        case Frame_State::waiting_for_center:
            return "waiting for center";
        case Frame_State::waiting_for_producer:
            return "waiting for producer";
        case Frame_State::refused:
            return "refused";
        case Frame_State::no_ring:
            return "without a history";
    }
    return "unknown";
}

}  // namespace zav_shm
