// SPDX-License-Identifier: Apache-2.0
#include "frame/link/control_exchange.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "control/control_protocol.h"
#include "control/json_text.h"
#include "ipc/deadline.h"
#include "ipc/zav_msg_q.h"

// System V queues have no timed calls: both ways are tried without waiting, with pauses that grow
// from a tenth of a millisecond to two. Exchanges are rare, and the center answers most of them
// within the first pause.

namespace zav_shm {

namespace {

using Clock = std::chrono::steady_clock;
using Outcome = Control_Exchange::Outcome;
using Answer = Control_Exchange::Answer;

class Pause {
public:
    /// @return false when there is no time left.
    bool once(Clock::time_point end) {
        const auto now = Clock::now();
        if (now >= end) {
            return false;
        }
        std::this_thread::sleep_for(std::min<Clock::duration>(length_, end - now));
        length_ = std::min(2 * length_, longest);
        return true;
    }

private:
    static constexpr std::chrono::microseconds longest{2000};
    std::chrono::microseconds length_{100};
};

Answer failure(Outcome outcome, std::string problem) { return {outcome, {}, std::move(problem)}; }

Answer failed_call(const char* what) {
    const int error = errno;
    if (error == EIDRM || error == EINVAL) {
        return failure(Outcome::no_center, "the center's queue was removed");
    }
    return failure(Outcome::failed, std::string(what) + ": " + std::strerror(error));
}

Answer no_answer(std::chrono::milliseconds limit) {
    return failure(Outcome::no_center,
                   "no answer from the center within " + std::to_string(limit.count()) + " ms");
}

std::optional<Answer> open(ZAV_MSG_Q& queue, int project) {
    if (queue.open_existing(project)) {
        return {};
    }
    switch (errno) {
        case ENOENT:
            return failure(Outcome::no_center, "no center is running");
        case EACCES:
            return failure(Outcome::failed,
                           "no right to use the center's queues (start the center with --group "
                           "for a group of this user)");
        default:
            return failed_call("cannot open the center's queue");
    }
}

std::optional<Answer> send(const ZAV_MSG_Q& queue, const std::string& text, Clock::time_point end,
                           std::chrono::milliseconds limit) {
    Control_Record record{};
    record.mtype = control::request_type;
    std::memcpy(record.text, text.data(), text.size());
    Pause pause;
    while (msgsnd(queue.id, &record, sizeof record.text, IPC_NOWAIT) != 0) {
        if (errno != EAGAIN && errno != EINTR) {
            return failed_call("cannot send to the center");
        }
        if (!pause.once(end)) {
            return no_answer(limit);
        }
    }
    return {};
}

// What is no object reads as an empty one.
Json::Value reply_of(const Control_Record& record, std::size_t length) {
    Json::Value root = parsed_json({record.text, length});
    return root.isObject() ? root : Json::objectValue;
}

bool belongs_to(const Json::Value& request, const Json::Value& reply,
                const Control_Exchange::Judge& judge) {
    return text_at(reply, control::field::command) == text_at(request, control::field::command) &&
           (!judge || judge(reply));
}

// One reply of the queue, whatever it answers; nothing when there is none.
std::optional<Json::Value> take(const ZAV_MSG_Q& queue, long pid) {
    Control_Record record{};
    const ssize_t length =
        msgrcv(queue.id, &record, sizeof record.text, pid, IPC_NOWAIT | MSG_NOERROR);
    if (length < 0) {
        return {};
    }
    return reply_of(record, static_cast<std::size_t>(length));
}

Answer receive(const ZAV_MSG_Q& queue, const Json::Value& request, Clock::time_point end,
               std::chrono::milliseconds limit, const Control_Exchange::Judge& judge) {
    const long pid = request[control::field::pid].asInt();
    Pause pause;
    for (;;) {
        if (auto reply = take(queue, pid)) {
            if (belongs_to(request, *reply, judge)) {
                return {Outcome::replied, std::move(*reply), {}};
            }
        } else if (errno != ENOMSG && errno != EINTR) {
            return failed_call("cannot receive from the center");
        } else if (!pause.once(end)) {
            return no_answer(limit);
        }
    }
}

/// Requests that were sent and not answered in time. The center serves them all the same, sooner
/// or later, and each registration that it serves starts the consumer's channel anew, which costs
/// a frame: so the same request is not sent again while the first may still be answered.
///
/// Used by whose turn it is.
class Unanswered {
public:
    bool may_be_answered(const std::string& text, const ZAV_MSG_Q& requests) const {
        const auto entry = sent_.find(text);
        if (entry == sent_.end()) {
            return false;
        }
        // Taken off the queue, it is answered within some relay cycles; or a center that started
        // has thrown it away, and serves another queue or the rest of this one.
        const Sent& sent = entry->second;
        const State now = state_of(requests);
        const bool may_wait =
            now.waiting > 0 && now.id == sent.queue.id && now.server == sent.queue.server;
        return Clock::now() - sent.at < (may_wait ? given_up_after : served_within);
    }
    void sent(const std::string& text, const ZAV_MSG_Q& requests) {
        if (sent_.size() >= remembered_max) {
            sent_.clear();
        }
        sent_[text] = {Clock::now(), state_of(requests)};
    }
    void answered(const std::string& text) { sent_.erase(text); }

private:
    static constexpr std::chrono::milliseconds served_within{300};
    static constexpr std::chrono::milliseconds given_up_after{5000};
    static constexpr std::size_t remembered_max = 64;

    struct State {
        int id;
        pid_t server;         // who took a request last
        std::size_t waiting;  // how many there are
    };
    struct Sent {
        Clock::time_point at;
        State queue{};
    };

    static State state_of(const ZAV_MSG_Q& queue) {
        msqid_ds status{};
        if (msgctl(queue.id, IPC_STAT, &status) != 0) {
            return {queue.id, 0, 0};
        }
        return {queue.id, status.msg_lrpid, status.msg_qnum};
    }

    std::map<std::string, Sent> sent_;
};

/// What the exchanges of a process share. Made at its first use and never destroyed: publishers and
/// subscribers of static storage talk to the center before the objects of this file are made, and
/// after they are gone.
struct Process {
    std::mutex mutex;                 // guards `is_taken`
    std::condition_variable changed;  // notified when a turn is over
    bool is_taken = false;            // somebody has the turn
    Unanswered unanswered;            // of whoever has it
};

Process& process() {
    static auto* const made = std::make_unique<Process>().release();
    return *made;
}

/// The right to talk to the center, for one thread of the process at a time.
class Turn {
public:
    explicit Turn(Clock::time_point end) {
        std::unique_lock lock(process().mutex);
        mine_ = process().changed.wait_until(lock, end, [] { return !process().is_taken; });
        if (mine_) {
            process().is_taken = true;
        }
    }
    ~Turn() {
        if (mine_) {
            const std::lock_guard guard(process().mutex);
            process().is_taken = false;
            process().changed.notify_one();
        }
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

    bool is_mine() const { return mine_; }

private:
    bool mine_ = false;
};

struct Queues {
    ZAV_MSG_Q requests;
    ZAV_MSG_Q replies;
};

std::optional<Answer> open(Queues& queues) {
    auto problem = open(queues.requests, control::request_project);
    return problem ? problem : open(queues.replies, control::reply_project);
}

// A request as it travels; the pid is taken now, since a process may have forked meanwhile.
std::optional<Answer> write(Json::Value& request, std::string& text) {
    request[control::field::pid] = static_cast<int>(getpid());
    text = control::written_on_one_line(request);
    if (text.size() <= control_text_bytes) {
        return {};
    }
    return failure(Outcome::failed, "a request of " + std::to_string(text.size()) +
                                        " bytes; the limit is " +
                                        std::to_string(control_text_bytes));
}

}  // namespace

bool Control_Exchange::Answer::granted() const {
    return outcome == Outcome::replied &&
           text_at(reply, control::field::status) == control::status::success;
}

std::string Control_Exchange::Answer::reason() const {
    if (outcome != Outcome::replied) {
        return problem;
    }
    const std::string said = text_at(reply, control::field::reason);
    return said.empty() ? text_at(reply, control::field::status) : said;
}

Answer Control_Exchange::ask(Json::Value request, std::chrono::milliseconds limit,
                             const Judge& judge) {
    const auto end = moment_after(limit);
    std::string text;
    if (auto problem = write(request, text)) {
        return *problem;
    }
    const Turn turn(end);
    if (!turn.is_mine()) {
        return no_answer(limit);
    }
    Queues queues;
    if (auto problem = open(queues)) {
        return *problem;
    }
    Unanswered& unanswered = process().unanswered;
    if (!unanswered.may_be_answered(text, queues.requests)) {
        queues.replies.discard_all(request[control::field::pid].asInt());
        if (auto problem = send(queues.requests, text, end, limit)) {
            return *problem;
        }
        unanswered.sent(text, queues.requests);
    }
    Answer answer = receive(queues.replies, request, end, limit, judge);
    if (answer.outcome == Outcome::replied) {
        unanswered.answered(text);
    }
    return answer;
}

// The center serves requests in the order of their arrival: once it has refused a query for a name
// that nobody has, it is done with the request before it.
Answer Control_Exchange::tell(Json::Value request, std::chrono::milliseconds limit) {
    const auto end = moment_after(limit);
    std::string text;
    if (auto problem = write(request, text)) {
        return *problem;
    }
    ZAV_MSG_Q requests;
    if (auto problem = open(requests, control::request_project)) {
        return *problem;
    }
    if (auto problem = send(requests, text, end, limit)) {
        return *problem;
    }
    Json::Value query;
    query[control::field::command] = control::command::query_shm;
    query[control::field::type] = control::type::distributor;
    query[control::field::name] = "";
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    Answer answer = ask(std::move(query), std::max(left, std::chrono::milliseconds(1)));
    answer.reply = {};
    return answer;
}

}  // namespace zav_shm
