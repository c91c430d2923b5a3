// SPDX-License-Identifier: Apache-2.0
#include "client/shm_dual_stream_receiver.h"

#include <cstddef>
#include <cstdio>

#include "ipc/standard_output.h"

void ZAV_SHM_Dual_Stream_Receiver::set_dual_stream(ZAV_SHM_Stream_Receiver* main,
                                                   ZAV_SHM_Stream_Receiver* sub) {
    slots_ = {main, sub};
}

ZAV_SHM_Stream_Receiver* ZAV_SHM_Dual_Stream_Receiver::slot(int index) const {
    return slots_[static_cast<std::size_t>(index)];
}

int ZAV_SHM_Dual_Stream_Receiver::get_current_stream_index() const {
    if (stream_receiver_cursor == nullptr) {
        return INVALID_STREAM_INDEX;
    }
    for (const int index : {MAIN_STREAM_INDEX, SUB_STREAM_INDEX}) {
        if (stream_receiver_cursor == slot(index)) {
            return index;
        }
    }
    return INVALID_STREAM_INDEX;
}

// "Starm" is what the line has always said.
int ZAV_SHM_Dual_Stream_Receiver::set_cursor(ZAV_SHM_Stream_Receiver* receiver) {
    std::puts("In Dual Starm set_cursor...");
    const int left_index = get_current_stream_index();
    ZAV_SHM_Stream_Receiver* const left = stream_receiver_cursor;
    stream_receiver_cursor = receiver;
    if (left == nullptr) {
        return left_index;
    }
    std::printf("In Dual Starm set_cursor %d receive_frame_pause...\n", left_index);
    left->receive_frame_pause();
    return 1;
}

int ZAV_SHM_Dual_Stream_Receiver::enable(int index) {
    return get_current_stream_index() == index ? index : set_cursor(slot(index));
}

int ZAV_SHM_Dual_Stream_Receiver::enable_main_stream() { return enable(MAIN_STREAM_INDEX); }

int ZAV_SHM_Dual_Stream_Receiver::enable_sub_stream() { return enable(SUB_STREAM_INDEX); }

unsigned ZAV_SHM_Dual_Stream_Receiver::switch_stream() {
    if (stream_receiver_cursor == nullptr) {
        return 0;
    }
    const int current = get_current_stream_index();
    if (current == INVALID_STREAM_INDEX) {
        zav_shm::standard_output() << "Can't Get Any Stream" << std::endl;
        return 0;
    }
    const int next = (current + 1) % MAX_DUAL_STREAM_NUM;
    if (slot(next) == nullptr) {
        zav_shm::standard_output()
            << "Stream Index " << next << " is NULL, switch stream fail." << std::endl;
        return 0;
    }
    set_cursor(slot(next));
    return 1;
}

int ZAV_SHM_Dual_Stream_Receiver::receive_frame(STREAM_FRAME_FORMAT* frame) {
    if (stream_receiver_cursor == nullptr) {
        std::puts("There is not stream_receiver_cursor");
        return 0;
    }
    return stream_receiver_cursor->receive_frame(frame) ? 1 : 0;
}
