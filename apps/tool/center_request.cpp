// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/center_request.h"

#include <algorithm>
#include <thread>

#include "apps/tool/json_text.h"
#include "control/control_protocol.h"
#include "frame/link/control_exchange.h"

namespace zav_shm::tool {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using Answer = Control_Exchange::Answer;
using Outcome = Control_Exchange::Outcome;

constexpr milliseconds pause{50};
constexpr milliseconds ask_max{250};

std::string seconds_text(milliseconds time) {
    const auto tenths = time.count() / 100;
    return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " s";
}

// An exchange tells how long its last try was; all tries together had the whole wait.
Problem no_center(std::string reason, milliseconds wait) {
    const std::size_t limit = reason.rfind(" within ");
    if (limit != std::string::npos && reason.ends_with(" ms")) {
        reason.erase(limit);
    }
    return {Exit_Status::no_center,
            "no center within " + seconds_text(wait) + ": " + reason +
                "; start zav-shm-centerd, or give it more time with --wait"};
}

Problem problem_of(const Answer& answer, milliseconds wait) {
    switch (answer.outcome) {
        case Outcome::no_center:
            return no_center(answer.reason(), wait);
        case Outcome::failed:
            return {Exit_Status::system, answer.reason()};
        case Outcome::replied:
            break;
    }
    return {Exit_Status::refused, "the center refuses: " + answer.reason()};
}

// Without its queues an exchange fails at once, and with those of a center that starts its request
// may be thrown away: so it is tried again while there is time, and between two tries signals are
// seen.
template <typename Exchange>
Answer persist(const Patience& patience, milliseconds try_max, Exchange exchange) {
    const auto end = Clock::now() + patience.wait;
    const auto is_stopped = [&patience](Clock::time_point until) {
        if (patience.stop != nullptr) {
            return patience.stop->wait_until(until);
        }
        std::this_thread::sleep_until(until);
        return false;
    };
    for (;;) {
        const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now());
        Answer answer = exchange(std::clamp(left, milliseconds(1), try_max));
        const auto next = std::min(Clock::now() + pause, end);
        if (answer.outcome != Outcome::no_center || Clock::now() >= end || is_stopped(next)) {
            return answer;
        }
    }
}

}  // namespace

std::optional<Problem> problem_of(const Opened& opened, const std::string& channel,
                                  milliseconds wait) {
    if (opened) {
        return {};
    }
    if (opened.state == Frame_State::no_ring) {
        return Problem{Exit_Status::system, "cannot publish " + channel + ": " + opened.reason};
    }
    if (!opened.refused) {
        return no_center(opened.reason, wait);
    }
    const bool is_by_center = opened.reason.starts_with(channel + ": ");
    return Problem{Exit_Status::refused,
                   is_by_center ? "the center refuses " + opened.reason : opened.reason};
}

std::variant<Json::Value, Problem> ask_center(const Json::Value& request, const Patience& patience,
                                              const Control_Exchange::Judge& judge) {
    const Answer answer = persist(patience, ask_max, [&request, &judge](milliseconds left) {
        return Control_Exchange::ask(request, left, judge);
    });
    if (answer.granted()) {
        return answer.reply;
    }
    if (patience.stop != nullptr && answer.outcome == Outcome::no_center &&
        patience.stop->requested()) {
        return Problem{Exit_Status::no_center, "stopped by a signal before a center answered"};
    }
    return problem_of(answer, patience.wait);
}

bool center_answers(milliseconds wait) {
    const auto answer = query_name(control::type::distributor, "", {wait});
    const auto* problem = std::get_if<Problem>(&answer);
    return problem == nullptr || problem->status == Exit_Status::refused;
}

std::optional<Problem> tell_center(const Json::Value& request, milliseconds wait) {
    // A request that has no reply is sent by each try.
    const Answer answer =
        persist({wait}, std::max(wait, milliseconds(1)),
                [&request](milliseconds left) { return Control_Exchange::tell(request, left); });
    if (answer.outcome == Outcome::replied) {
        return {};
    }
    return problem_of(answer, wait);
}

std::variant<Json::Value, Problem> query_name(const char* type, const std::string& name,
                                              const Patience& patience) {
    Json::Value request;
    request[control::field::command] = control::command::query_shm;
    request[control::field::type] = type;
    request[control::field::name] = name;
    const Control_Exchange::Judge is_of_this_name = [type, &name](const Json::Value& reply) {
        const bool is_refusal = text_at(reply, control::field::name).empty();
        return is_refusal || (text_at(reply, control::field::name) == name &&
                              text_at(reply, control::field::type) == type);
    };
    return ask_center(request, patience, is_of_this_name);
}

}  // namespace zav_shm::tool
