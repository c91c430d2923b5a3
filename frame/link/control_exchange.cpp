// SPDX-License-Identifier: Apache-2.0
#include "frame/link/control_exchange.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include "control/control_protocol.h"
#include "control/json_text.h"
#include "frame/link/reply_judge.h"
#include "frame/link/unanswered_requests.h"
#include "ipc/annotated_mutex.h"
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
    return is_reply_to(request, reply) && (!judge || judge(reply));
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

/// What the exchanges of a process share. Made at its first use and never destroyed: publishers and
/// subscribers of static storage talk to the center before the objects of this file are made, and
/// after they are gone.
struct Process {
    Mutex mutex;
    std::condition_variable changed;                  // notified when a turn is over
    bool is_taken ZAV_SHM_GUARDED_BY(mutex) = false;  // somebody has the turn
    Unanswered_Requests unanswered;                   // of whoever has it
};

Process& process() {
    static auto* const made = std::make_unique<Process>().release();
    return *made;
}

/// The right to talk to the center, for one thread of the process at a time.
class Turn {
public:
    explicit Turn(Clock::time_point end) {
        Process& shared = process();
        Waiting_Guard guard(shared.mutex);
        mine_ = shared.changed.wait_until(
            guard.lock(), end,
            [&shared]() ZAV_SHM_REQUIRES(shared.mutex) { return !shared.is_taken; });
        shared.is_taken = shared.is_taken || mine_;
    }
    ~Turn() {
        if (mine_) {
            Process& shared = process();
            const Guard guard(shared.mutex);
            shared.is_taken = false;
            shared.changed.notify_one();
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

/// What travels: the request that is answered, and before it one that is not, if there is one.
struct Letters {
    Json::Value request;
    std::string text;
    std::string before;
    std::string subject;  // as Unanswered_Requests::sent() has it
};

// The pid is taken now, since a process may have forked meanwhile.
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

// The channel end that a request is about.
std::string subject_of(const Json::Value& request) {
    if (!request.isMember(control::field::channel)) {
        return {};
    }
    Json::Value subject;
    for (const char* const field : {control::field::type, control::field::name,
                                    control::field::channel, control::field::stream}) {
        subject[field] = request[field];
    }
    return control::written_on_one_line(subject);
}

std::optional<Answer> send(const Queues& queues, const Letters& letters, Clock::time_point end,
                           std::chrono::milliseconds limit) {
    for (const std::string* const text : {&letters.before, &letters.text}) {
        if (!text->empty()) {
            if (auto problem = send(queues.requests, *text, end, limit)) {
                return problem;
            }
        }
    }
    process().unanswered.sent(letters.text, letters.subject, queues.requests);
    return {};
}

// Sends it unless it was sent already, and again when it is lost: a center that has just started
// has thrown away what it found on its queue.
Answer exchange(const Letters& letters, std::chrono::milliseconds limit,
                const Control_Exchange::Judge& judge) {
    const auto end = moment_after(limit);
    const Turn turn(end);
    if (!turn.is_mine()) {
        return no_answer(limit);
    }
    Queues queues;
    if (auto problem = open(queues)) {
        return *problem;
    }
    const long pid = letters.request[control::field::pid].asInt();
    Unanswered_Requests& unanswered = process().unanswered;
    if (!unanswered.may_be_answered(letters.text, queues.requests)) {
        queues.replies.discard_all(pid);
        if (auto problem = send(queues, letters, end, limit)) {
            return *problem;
        }
    }
    Pause pause;
    for (;;) {
        if (auto reply = take(queues.replies, pid)) {
            if (belongs_to(letters.request, *reply, judge)) {
                unanswered.answered(letters.text);
                return {Outcome::replied, std::move(*reply), {}};
            }
        } else if (errno != ENOMSG && errno != EINTR) {
            return failed_call("cannot receive from the center");
        } else if (!pause.once(end)) {
            return no_answer(limit);
        } else if (!unanswered.may_be_answered(letters.text, queues.requests)) {
            if (auto problem = send(queues, letters, end, limit)) {
                return *problem;
            }
        }
    }
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
    Letters letters{std::move(request), {}, {}, {}};
    if (auto problem = write(letters.request, letters.text)) {
        return *problem;
    }
    letters.subject = subject_of(letters.request);
    return exchange(letters, limit, judge);
}

// The center serves requests in the order of their arrival: once it has refused a query for a name
// that nobody has, it is done with the request before it. Each has another such name, so that no
// late refusal is taken for its own.
Answer Control_Exchange::tell(Json::Value request, std::chrono::milliseconds limit) {
    static std::atomic<unsigned> count{0};
    Json::Value query;
    query[control::field::command] = control::command::query_shm;
    query[control::field::type] = control::type::distributor;
    query[control::field::name] = "?" + std::to_string(++count);
    Letters letters{std::move(query), {}, {}, {}};
    for (const auto& [what, text] :
         {std::pair{&request, &letters.before}, std::pair{&letters.request, &letters.text}}) {
        if (auto problem = write(*what, *text)) {
            return *problem;
        }
    }
    Answer answer = exchange(letters, limit, nullptr);
    answer.reply = {};
    return answer;
}

}  // namespace zav_shm
