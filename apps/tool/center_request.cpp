// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/center_request.h"

#include <algorithm>
#include <thread>

#include "control/control_protocol.h"
#include "frame/link/control_exchange.h"

namespace zav_shm::tool {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using Answer = Control_Exchange::Answer;
using Outcome = Control_Exchange::Outcome;

constexpr milliseconds pause{50};

std::string seconds_text(milliseconds time) {
    const auto tenths = time.count() / 100;
    return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " s";
}

Problem problem_of(const Answer& answer, milliseconds wait) {
    switch (answer.outcome) {
        case Outcome::no_center:
            return {Exit_Status::no_center,
                    "no center within " + seconds_text(wait) + ": " + answer.reason() +
                        "; start zav-shm-centerd, or give it more time with --wait"};
        case Outcome::failed:
            return {Exit_Status::system, answer.reason()};
        case Outcome::replied:
            break;
    }
    return {Exit_Status::refused, "the center refuses: " + answer.reason()};
}

// Without its queues an exchange fails at once, so it is tried again while there is time.
template <typename Exchange>
Answer persist(milliseconds wait, Exchange exchange) {
    const auto end = Clock::now() + wait;
    for (;;) {
        const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now());
        Answer answer = exchange(std::max(left, milliseconds(1)));
        if (answer.outcome != Outcome::no_center || Clock::now() + pause >= end) {
            return answer;
        }
        std::this_thread::sleep_for(pause);
    }
}

}  // namespace

std::variant<Json::Value, Problem> ask_center(const Json::Value& request, milliseconds wait) {
    const Answer answer = persist(
        wait, [&request](milliseconds left) { return Control_Exchange::ask(request, left); });
    if (answer.granted()) {
        return answer.reply;
    }
    return problem_of(answer, wait);
}

std::optional<Problem> tell_center(const Json::Value& request, milliseconds wait) {
    const Answer answer = persist(
        wait, [&request](milliseconds left) { return Control_Exchange::tell(request, left); });
    if (answer.outcome == Outcome::replied) {
        return {};
    }
    return problem_of(answer, wait);
}

std::variant<Json::Value, Problem> query_name(const char* type, const std::string& name,
                                              milliseconds wait) {
    Json::Value request;
    request[control::field::command] = control::command::query_shm;
    request[control::field::type] = type;
    request[control::field::name] = name;
    return ask_center(request, wait);
}

}  // namespace zav_shm::tool
