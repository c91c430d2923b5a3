// SPDX-License-Identifier: Apache-2.0
//
// Requests, from their text to the reply on the queue, without the request queue and the center's
// thread in between.
//
// Input: one request, or several with the record separator 0x1e between them, so that an input can
// pair a consumer before it unpairs it.
#include <memory>
#include <string>
#include <string_view>

#include "center/center_action.h"
#include "control/control_protocol.h"
#include "fuzz/fuzz_center.h"
#include "fuzz/fuzz_target.h"
#include "fuzz/reply_rules.h"

namespace {

using namespace zav_shm;
using fuzz::require;

constexpr char record_separator = 0x1e;

// The reply to a shorter request always fits: one byte of it becomes six in JSON at most, and
// the rest of a reply has less than 300 bytes.
constexpr std::size_t surely_answered_bytes = 100;

bool has_reply(const std::string& command) {
    return command != control::command::kick_idle && command != control::command::query_status;
}

void require_right_replies(const std::string& text, bool known) {
    const auto replies = fuzz::Fuzz_Center::instance().take_replies();
    const control::Fields fields(text);
    const std::string command = fields.text(control::field::command);
    const int pid = fields.number(control::field::pid);
    const bool may_reply = known && pid > 0 && has_reply(command);
    require(replies.size() <= (may_reply ? 1 : 0), "a request has one reply at most", text);
    require(!may_reply || !replies.empty() || text.size() > surely_answered_bytes,
            "a short request is answered", text);
    for (const auto& reply : replies) {
        const Json::Value root = fuzz::require_valid_reply(reply);
        require(reply.type == pid, "a reply goes to the process that asked", text);
        require(root[control::field::command].asString() == command,
                "a reply names the command of its request", text);
    }
}

void serve(const std::string& text) {
    auto& center = fuzz::Fuzz_Center::instance().center();
    const std::unique_ptr<SHM_CENTER_ACTION> action(Factory_Shm_Center_Action(text, &center));
    if (action) {
        require(action->execute(text) == 0, "every action returns 0", text);
    }
    require_right_replies(text, action != nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    fuzz::silence_standard_output();
    fuzz::Fuzz_Center::instance();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view rest = fuzz::text_of(data, size);
    std::size_t end = 0;
    while ((end = rest.find(record_separator)) != std::string_view::npos) {
        serve(std::string(rest.substr(0, end)));
        rest.remove_prefix(end + 1);
    }
    serve(std::string(rest));
    fuzz::Fuzz_Center::instance().reset();
    return 0;
}
