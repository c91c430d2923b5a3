// SPDX-License-Identifier: Apache-2.0
#include "frame/unanswered_requests.h"

#include <sys/msg.h>

#include <algorithm>

using namespace std::chrono_literals;

namespace zav_shm {

namespace {

// Taken off the queue, a request is answered within some relay cycles. Whoever waits longer asks
// again, each time after twice the time: the center may be slow, and more to do makes it no faster.
constexpr auto served_within = 300ms;

// A center that starts drains the queue and serves it a moment later. The request was thrown away,
// or is answered at once.
constexpr auto served_by_another_within = 150ms;

// Others wait behind it, or instead of it.
constexpr auto given_up_after = 5000ms;

constexpr int times_max = 8;
constexpr std::size_t remembered_max = 64;

}  // namespace

bool Unanswered_Requests::may_be_answered(const std::string& text, const ZAV_MSG_Q& requests) {
    const auto entry = sent_.find(text);
    if (entry == sent_.end()) {
        return false;
    }
    Sent& sent = entry->second;
    const auto now = Clock::now();
    const auto age = now - sent.at;
    const Queue_State queue = state_of(requests);
    if (queue.id != sent.queue.id || queue.server != sent.queue.server) {
        return age < served_within &&
               now - noticed(sent.other_server_at, now) < served_by_another_within;
    }
    if (queue.waiting > 0) {
        return age < given_up_after || is_still_waiting(sent, queue);
    }
    return age < given_up_after &&
           now - noticed(sent.taken_at, now) < served_within * (1 << (sent.times - 1));
}

Unanswered_Requests::Clock::time_point Unanswered_Requests::noticed(
    std::optional<Clock::time_point>& event, Clock::time_point now) {
    if (!event) {
        event = now;
    }
    return *event;
}

// Nobody has taken anything since. The queue says when in seconds, so one that was sent within the
// same second cannot be told.
bool Unanswered_Requests::is_still_waiting(const Sent& sent, const Queue_State& now) {
    return now.took_last == sent.queue.took_last && now.took_last < sent.at_wall_clock;
}

void Unanswered_Requests::sent(const std::string& text, const std::string& subject,
                               const ZAV_MSG_Q& requests) {
    std::erase_if(sent_, [&](const auto& entry) {
        return !subject.empty() && entry.second.subject == subject && entry.first != text;
    });
    if (sent_.size() >= remembered_max) {
        sent_.clear();
    }
    Sent& entry = sent_[text];
    const int times = std::min(entry.times + 1, times_max);
    entry = {subject, Clock::now(), std::time(nullptr), state_of(requests), times, {}, {}};
}

Unanswered_Requests::Queue_State Unanswered_Requests::state_of(const ZAV_MSG_Q& queue) {
    msqid_ds status{};
    if (msgctl(queue.id, IPC_STAT, &status) != 0) {
        return {queue.id, 0, 0, 0};
    }
    return {queue.id, status.msg_lrpid, status.msg_rtime, status.msg_qnum};
}

}  // namespace zav_shm
