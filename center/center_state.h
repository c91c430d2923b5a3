// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <memory>

#include "center/access_check.h"
#include "center/center_event.h"
#include "center/receive_thread.h"
#include "center/reply_sender.h"
#include "center/ring_consumers.h"
#include "config/zav_shm_config.h"
#include "ipc/annotated_mutex.h"
#include "ipc/zav_msg_q.h"
#include "stream/transmission_manager.h"

class ZAV_SHM_CENTER;

namespace zav_shm {

/// What a center is made of, and who holds it.
///
///     the host's center object                    the receive thread
///     ZAV_SHM_CENTER                              fun_shm_center_msgq_recv
///          |                                              |
///          | shares                                       | serves for (a plain pointer)
///          v                                              v
///     Center_State  ------- owns: `served` ------->  ZAV_SHM_CENTER, the second one
///          ^                                              |
///          +------------------- shares -------------------+
///
/// Destroying a center does nothing: its thread goes on answering. So the thread needs a center
/// that outlives the host's, and the handlers, the actions and the thread's body all take a
/// ZAV_SHM_CENTER: it is the second one, made when the thread starts. State and second center hold
/// each other; that circle is what keeps both alive behind a host that has destroyed its own, and
/// only shutdown() breaks it, after the thread has left.
struct Center_State {
    ZAV_SHM_CONFIG* config = nullptr;  // the caller's
    std::unique_ptr<SHM_Stream_Transmission_Manager> manager;
    std::unique_ptr<Ring_Consumers> ring_consumers;
    Access_Check access;
    std::atomic<bool> kick_idle_enabled{false};  // receive thread writes, any thread reads
    ZAV_MSG_Q recv_msgq;
    ZAV_MSG_Q send_msgq;
    Reply_Sender replies{send_msgq};
    std::atomic<bool> stopping{false};  // shutdown writes, receive thread reads
    Receive_Thread receiver;
    std::unique_ptr<ZAV_SHM_CENTER> served;  // whom the receive thread serves for
    Mutex watcher_mutex;
    Center_Watcher watcher ZAV_SHM_GUARDED_BY(watcher_mutex);
};

}  // namespace zav_shm
