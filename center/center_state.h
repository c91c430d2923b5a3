// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <memory>

#include "center/receive_thread.h"
#include "center/reply_sender.h"
#include "config/zav_shm_config.h"
#include "ipc/zav_msg_q.h"
#include "stream/transmission_manager.h"

class ZAV_SHM_CENTER;

namespace zav_shm {

/// What a center is made of. It belongs to the center object and to the receive thread, so that
/// the thread goes on when the object is destroyed.
struct Center_State {
    ZAV_SHM_CONFIG* config = nullptr;  // the caller's
    std::unique_ptr<SHM_Stream_Transmission_Manager> manager;
    std::atomic<bool> kick_idle_enabled{false};  // receive thread writes, any thread reads
    ZAV_MSG_Q recv_msgq;
    ZAV_MSG_Q send_msgq;
    Reply_Sender replies{send_msgq};
    std::atomic<bool> stopping{false};  // shutdown writes, receive thread reads
    Receive_Thread receiver;
    std::unique_ptr<ZAV_SHM_CENTER> served;  // the receive thread's own view of this state
};

}  // namespace zav_shm
