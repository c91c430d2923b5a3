// SPDX-License-Identifier: Apache-2.0
//
// Construction, the receive loop, and the ways of sending a reply.

#include "center/shm_center.h"

#include <sys/msg.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <limits>
#include <utility>

#include "center/center_state.h"
#include "control/control_protocol.h"
#include "ipc/shared_memory_folder.h"

using zav_shm::Center_State;
using zav_shm::Control_Record;
namespace control = zav_shm::control;

namespace {

// So that the receive thread waits on its queue before the constructor returns.
constexpr useconds_t start_pause_us = 100'000;

// A queue that cannot be read or opened again, for want of permission, is asked this often.
constexpr useconds_t queue_retry_us = 100'000;

// The receive thread is woken with a message of this type, which nobody else sends.
constexpr long wake_type = std::numeric_limits<long>::max();
constexpr std::chrono::milliseconds wake_again{20};

// A queue that is full needs no message: then the thread does not wait in it.
void wake_receiver(Center_State& state) {
    Control_Record record{};
    record.mtype = wake_type;
    msgsnd(std::atomic_ref(state.recv_msgq.id).load(), &record, 0, IPC_NOWAIT);
}

// The receive thread's; shutdown reads the id meanwhile.
bool open_requests_again(Center_State& state) {
    ZAV_MSG_Q queue;
    const bool is_open = queue.open(control::request_project);
    std::atomic_ref(state.recv_msgq.id).store(queue.id);
    return is_open;
}

std::string text_of(const Control_Record& record) {
    return {record.text, strnlen(record.text, sizeof record.text)};
}

}  // namespace

// ---- life ----

ZAV_SHM_CENTER::ZAV_SHM_CENTER(ZAV_SHM_CONFIG*& config) : state_(std::make_shared<Center_State>()) {
    if (config == nullptr) {
        config = std::make_unique<ZAV_SHM_CONFIG>().release();
        config->load_default();
    }
    state_->config = config;
    state_->manager = std::make_unique<SHM_Stream_Transmission_Manager>(config);
    state_->ring_consumers =
        std::make_unique<zav_shm::Ring_Consumers>(zav_shm::rings_folder(config->shm_path));
    state_->access.guard(*config);
    state_->recv_msgq.open(control::request_project);
    state_->recv_msgq.clean();
    state_->send_msgq.open(control::reply_project);
    state_->send_msgq.clean();
    create_recv_msgq();
    state_->kick_idle_enabled = false;
}

ZAV_SHM_CENTER::ZAV_SHM_CENTER(std::shared_ptr<Center_State> state) : state_(std::move(state)) {}

// The receive thread goes on: center_state.h tells what keeps it alive.
ZAV_SHM_CENTER::~ZAV_SHM_CENTER() = default;

void ZAV_SHM_CENTER::create_recv_msgq() {
    if (is_shut_down()) {
        return;
    }
    if (!state_->served) {
        state_->served.reset(new ZAV_SHM_CENTER(state_));  // its constructor is private
    }
    state_->receiver.start(fun_shm_center_msgq_recv, state_->served.get());
    usleep(start_pause_us);
}

// Woken again and again: another center that listens on the same queue may take the message, and
// the thread may just have opened another queue.
void ZAV_SHM_CENTER::shutdown() {
    if (is_shut_down()) {
        return;
    }
    state_->stopping = true;
    do {
        wake_receiver(*state_);
    } while (!state_->receiver.left_within(wake_again));
    state_->recv_msgq.discard_all(wake_type);
    state_->manager.reset();
    state_->ring_consumers.reset();
    state_->config = nullptr;
    state_->served.reset();  // the circle of center_state.h ends
}

bool ZAV_SHM_CENTER::is_shut_down() const { return state_->manager == nullptr; }

SHM_Stream_Transmission_Manager* ZAV_SHM_CENTER::manager() const { return state_->manager.get(); }

const zav_shm::Ring_Consumers* ZAV_SHM_CENTER::ring_consumers() const {
    return state_->ring_consumers.get();
}

zav_shm::Ring_Consumers* ZAV_SHM_CENTER::ring_consumers() { return state_->ring_consumers.get(); }

zav_shm::Refused_Outsiders ZAV_SHM_CENTER::refused_outsiders() const {
    return state_->access.refused();
}

// ---- the receive loop ----

void* fun_shm_center_msgq_recv(void* center) {
    pthread_setname_np(pthread_self(), "zav_center");
    auto* const served = static_cast<ZAV_SHM_CENTER*>(center);
    while (served != nullptr && !served->state_->stopping) {
        served->receive_and_serve();
    }
    return nullptr;
}

void ZAV_SHM_CENTER::receive_and_serve() {
    Control_Record record{};
    if (recv_q(&record, zav_shm::control_record_bytes) < 0) {
        const int error = errno;
        std::printf("Recv Error, %s\n", std::strerror(error));
        recover_from(error);
        return;
    }
    const auto sender = state_->recv_msgq.last_sender();
    state_->replies.request_comes_from(sender);
    state_->access.request_comes_from(sender);
    const std::string text = text_of(record);
    const std::unique_ptr<SHM_CENTER_ACTION> action(Factory_Shm_Center_Action(text, this));
    if (action) {
        action->execute(text);
    }
    tell_watcher(text, action != nullptr);
}

void ZAV_SHM_CENTER::tell_watcher(const std::string& text, bool is_known) {
    const std::string refusal = std::exchange(refusal_, {});
    const zav_shm::Guard guard(state_->watcher_mutex);
    if (!state_->watcher || state_->stopping) {
        return;
    }
    const control::Request request(text);
    state_->watcher({is_known ? control::Fields(text).text(control::field::command) : std::string(),
                     request.type, request.name, request.pair_name, request.channel, request.stream,
                     request.pid, request.ring, refusal});
}

void ZAV_SHM_CENTER::watch_requests(zav_shm::Center_Watcher watcher) {
    const zav_shm::Guard guard(state_->watcher_mutex);
    state_->watcher = std::move(watcher);
}

// Without this, each of these errors comes back at once and for ever: the message that is too
// long stays the oldest, and a queue that was removed does not come back by itself.
void ZAV_SHM_CENTER::recover_from(int error) {
    if (error == EINTR) {
        return;
    }
    const bool recovered = error == E2BIG ? state_->recv_msgq.discard_oldest()
                                          : error != EACCES && open_requests_again(*state_);
    if (!recovered) {
        usleep(queue_retry_us);
    }
}

// ---- queues ----

int ZAV_SHM_CENTER::recv_q(void* record, int size) {
    if (is_shut_down()) {
        errno = EINVAL;
        return -1;
    }
    return static_cast<int>(
        msgrcv(state_->recv_msgq.id, record, static_cast<std::size_t>(size), 0, 0));
}

int ZAV_SHM_CENTER::send_q(void* record, int size) {
    if (is_shut_down()) {
        errno = EINVAL;
        return -1;
    }
    const int result = state_->replies.send(record, size);
    if (result < 0) {
        std::puts("SHM_Center Send Msg Fail");
    }
    return result;
}

int ZAV_SHM_CENTER::shm_center_reply_msg(const void* text, int length, int mtype) {
    if (is_shut_down()) {
        return -1;
    }
    Control_Record record{};
    record.mtype = mtype;
    int result = -1;
    if (text == nullptr || length < 0 || length > zav_shm::control_text_bytes) {
        std::puts("SHM_Center Send Msg Fail");
    } else {
        std::memcpy(record.text, text, static_cast<std::size_t>(length));
        result = send_q(&record, length);
    }
    if (result < 0) {
        std::puts("Send Fail");
    }
    return result;
}

int ZAV_SHM_CENTER::shm_center_reply_msg(const std::string& text, int mtype) {
    return shm_center_reply_msg(text.data(), static_cast<int>(text.size()), mtype);
}

int ZAV_SHM_CENTER::shm_center_reply_msg(const Json::Value& reply, int mtype) {
    return shm_center_reply_msg(control::written_with_tabs(reply), mtype);
}

int ZAV_SHM_CENTER::shm_center_reply_msg(const std::string& command, const std::string& status,
                                         int mtype) {
    Json::Value reply;
    reply[control::field::command] = command;
    reply[control::field::status] = status;
    return shm_center_reply_msg(reply, mtype);
}

int ZAV_SHM_CENTER::refuse(const char* command, const char* status, const std::string& reason,
                           int pid) {
    Json::Value reply;
    reply[control::field::command] = command;
    reply[control::field::status] = status;
    reply[control::field::reason] = reason;
    shm_center_reply_msg(reply, pid);
    refusal_ = reason;
    return 0;
}
