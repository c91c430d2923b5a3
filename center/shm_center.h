// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/json.h>

#include <memory>
#include <string>

#include "center/access_check.h"
#include "center/center_action.h"
#include "center/center_event.h"
#include "center/ring_consumers.h"
#include "config/zav_shm_config.h"
#include "control/control_protocol.h"
#include "stream/zav_stream_processor.h"

namespace zav_shm {
struct Center_State;
}

/// The broker that a host process builds once: makes every channel and relay of a configuration,
/// and answers the clients' requests on a thread of its own, one at a time, in the order of
/// arrival. docs/protocol.md describes the requests and replies.
///
/// Owner    owns the manager and the queue handles. The configuration stays the caller's, also
///          one that the constructor made, and must outlive the center's thread.
/// Threads  "zav_center" runs all handlers. enable_kick_idle_client, is_kick_idle_enabled and
///          kick_idle_client may be called from any thread; construction and shutdown belong to
///          one.
/// Life     destruction does nothing: the thread goes on answering, nothing is freed, the queues
///          stay. A host that wants to end calls shutdown first.
/// Errors   no byte sequence on the request queue makes the center crash, throw, spin, block or
///          grow. What goes wrong is printed as documented. Nothing throws.
/// Crash    clients of a killed center keep their segments, whose relays are gone; they have to
///          register again with the next one, which makes all semaphores anew.
class ZAV_SHM_CENTER {
public:
    /// Makes the channels, opens and drains both queues and starts the receive thread; takes
    /// 100 ms at least.
    ///
    /// @param config  if null, set to a new configuration with the defaults.
    explicit ZAV_SHM_CENTER(ZAV_SHM_CONFIG*& config);
    ~ZAV_SHM_CENTER();
    ZAV_SHM_CENTER(const ZAV_SHM_CENTER&) = delete;
    ZAV_SHM_CENTER& operator=(const ZAV_SHM_CENTER&) = delete;

    /// Ends the receive thread between two requests, stops all relays, and frees everything but
    /// the configuration; returns when all threads have left. Segments, semaphores, queues and
    /// requests that were not served stay. Afterwards every operation does nothing and prints
    /// nothing; those with a result return 0 or -1, as for failure. Not to be called from a
    /// handler, nor while another thread still uses the center.
    void shutdown();

    // ---- queues ----

    /// Starts the receive thread, unless it runs, and sleeps 100 ms.
    void create_recv_msgq();

    /// Takes the oldest request; blocks until there is one.
    ///
    /// @param record  room for a message type and `size` text bytes.
    /// @return the text's length, or -1 with errno.
    int recv_q(void* record, int size);

    /// Sends a reply; never blocks. On failure prints "SHM_Center Send Msg Fail".
    int send_q(void* record, int size);

    /// Send a reply to the client with the process id `mtype`. A text of more than 1024 bytes
    /// does not fit a record and is not sent. A failure prints a second line, "Send Fail".
    ///
    /// @return 0, or -1 when it was not sent.
    int shm_center_reply_msg(const void* text, int length, int mtype);
    int shm_center_reply_msg(const std::string& text, int mtype);
    int shm_center_reply_msg(const Json::Value& reply, int mtype);
    int shm_center_reply_msg(const std::string& command, const std::string& status, int mtype);

    // ---- handlers, each for the text of one request ----

    int verify_register_msg(const std::string& text);
    void shm_center_register(const std::string& text);
    void shm_center_deregister(const std::string& text);
    int verify_query_msg(const std::string& text);
    void shm_center_query_shm(const std::string& text);
    int verify_pair_msg(const std::string& text);
    void shm_center_pair(const std::string& text);
    void shm_center_query_status(const std::string& text);

    // ---- idle consumers ----

    /// Whether kick_idle_client unpairs anybody; false after construction.
    void enable_kick_idle_client(bool enable);

    bool is_kick_idle_enabled() const;

    /// One pass of unpairing consumers that have missed ten waits in a row. Nothing inside the
    /// center calls it: the host does, when it likes.
    void kick_idle_client();

    // ---- the host's view ----

    /// Has `watcher` called for each request from now on; an empty one ends that. When this
    /// returns, the former one is not running and is not called any more, so it is not to be called
    /// from a watcher. Any thread.
    void watch_requests(zav_shm::Center_Watcher watcher);

    /// Owner of all relays; null after shutdown.
    SHM_Stream_Transmission_Manager* manager() const;

    /// The consumers that read rings, in no relay's list; null after shutdown.
    const zav_shm::Ring_Consumers* ring_consumers() const;
    zav_shm::Ring_Consumers* ring_consumers();

    /// Requests that were refused since they came from outside a group of the configuration.
    zav_shm::Refused_Outsiders refused_outsiders() const;

private:
    friend void* fun_shm_center_msgq_recv(void* center);

    explicit ZAV_SHM_CENTER(std::shared_ptr<zav_shm::Center_State> state);
    bool is_shut_down() const;
    void receive_and_serve();
    void tell_watcher(const std::string& text, bool is_known);
    void recover_from(int error);
    int refuse(const char* command, const char* status, const std::string& reason, int pid);
    int verify_ring_pair_msg(const zav_shm::control::Request& request);
    void pair_ring_consumer(const zav_shm::control::Request& request,
                            const Shm_Stream_Transmission_Index& key);
    bool producer_has_channel(const zav_shm::control::Request& request) const;
    void register_producer(const zav_shm::control::Request& request,
                           const Shm_Stream_Transmission_Index& key);
    void register_consumer(const zav_shm::control::Request& request,
                           const Shm_Stream_Transmission_Index& key);

    std::shared_ptr<zav_shm::Center_State> state_;  // shared with the receive thread
    std::string refusal_;                           // why the request in hand was refused
};

/// The receive thread's body: serves requests for the center `center` for ever.
void* fun_shm_center_msgq_recv(void* center);
