// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/ipc.h>
#include <sys/msg.h>

#include <string>

#include "apps/centerd/outcome.h"
#include "control/replaced_file.h"

namespace zav_shm::centerd {

/// The machine's two control queues, as the daemon sees them: it makes them before the center opens
/// them, since a queue that is made by opening it has no permission bits, and every exchange of
/// anybody but root fails.
///
/// While a center starts or ends, its queue of requests is held: it is given room for a single
/// byte, so that nobody, root included, can send a request. Who waits for room in it is let on when
/// it is opened; so nobody is answered by a center that is not ready, and no request that is sent
/// after the hold has begun is lost. The center's own wake-up, which has no bytes, passes.
///
/// Crash    a daemon that is killed leaves a held queue held; the next one opens it.
class Control_Queues {
public:
    enum class Requests { held, taken };

    /// Looks the keys up; they depend on the folder /tmp.
    ///
    /// @return a failure when there is no /tmp.
    static Outcome find_keys(Control_Queues& queues);

    /// Makes both queues, or takes over those that are there, with the own user as the owner.
    Outcome prepare(File_Access access, Requests requests = Requests::taken);

    /// Opens the queue of requests if it is held.
    void open_if_held(File_Access access);

    /// True when somebody removed a queue: the center has made, or will make, another one without
    /// permission bits, for which prepare() has to be called again.
    bool were_replaced() const;

    /// True when any of both is there, whoever made it.
    bool exist() const;

    /// Makes `owner` the owner of those that are there; needs root.
    Outcome give_to(uid_t owner) const;

    /// Removes both.
    void remove() const;

    key_t request_key() const { return request_key_; }
    int request_id() const { return request_id_; }
    int reply_id() const { return reply_id_; }
    std::string text() const;  // "queues 0x0005a1f3 and 0x0105a1f3"

    /// /dev/shm/zav_shm_queues_<request key>, whose lock stands for both.
    std::string lock_path() const;

private:
    Outcome prepare_queue(const char* name, key_t key, File_Access access, Requests requests,
                          int& id);
    int set_access(int id, File_Access access, Requests requests);

    key_t request_key_ = -1;
    key_t reply_key_ = -1;
    int request_id_ = -1;
    int reply_id_ = -1;
    bool is_held_ = false;
    msglen_t bytes_before_hold_ = 0;  // of the queue of requests, while it is held
};

}  // namespace zav_shm::centerd
