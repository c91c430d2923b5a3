// SPDX-License-Identifier: Apache-2.0
//
// Messages of any type, length and content on the request queue of a running center. Nothing on
// the queue stops it: the next client is answered as if nothing had happened.
//
// Input: the message type as four bytes, lowest first, then the message as it is.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <string_view>
#include <thread>

#include "control/control_protocol.h"
#include "fuzz/fuzz_center.h"
#include "fuzz/fuzz_target.h"
#include "fuzz/reply_rules.h"

namespace {

using namespace zav_shm;
using fuzz::require;
using std::chrono::steady_clock;

constexpr std::size_t type_bytes = 4;
constexpr std::size_t message_bytes_max = 4096;

// A reply takes less than a millisecond; a stopped center takes for ever.
constexpr std::chrono::seconds deadline{10};

// Between two looks at the reply queue: there is no receive call with a time limit.
constexpr std::chrono::microseconds pause{20};

long take_type(std::string_view& input) {
    const std::size_t length = std::min(type_bytes, input.size());
    unsigned long type = 0;
    for (std::size_t i = 0; i < length; ++i) {
        type |= static_cast<unsigned long>(static_cast<unsigned char>(input[i])) << (8 * i);
    }
    input.remove_prefix(length);
    return std::max(static_cast<long>(type & 0x7fffffffU), 1L);  // the kernel refuses others
}

// As clients send it: the whole record, filled with zeros.
std::string good_request() {
    Json::Value request;
    request[control::field::command] = control::command::query_shm;
    request[control::field::type] = control::type::distributor;
    request[control::field::name] = "CAM";
    request[control::field::pid] = getpid();
    std::string record = control::written_on_one_line(request);
    record.resize(control_record_bytes);
    return record;
}

bool answers_good_request(const fuzz::Reply& reply) {
    const Json::Value root = fuzz::require_valid_reply(reply);
    return reply.type == getpid() &&
           root[control::field::command].asString() == control::command::query_shm &&
           root[control::field::status].asString() == control::status::success;
}

// The center serves in the order of arrival, so what came before is done when this returns.
void require_service(std::string_view after) {
    auto& center = fuzz::Fuzz_Center::instance();
    static const std::string request = good_request();
    require(center.send_request(control::request_type, request), "the queue has room", after);
    const auto end = steady_clock::now() + deadline;
    while (true) {
        const auto replies = center.take_replies();
        // All are looked at: those to the message itself come first.
        if (std::count_if(replies.begin(), replies.end(), answers_good_request) > 0) {
            return;
        }
        require(steady_clock::now() < end, "the center still answers", after);
        std::this_thread::sleep_for(pause);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    fuzz::silence_standard_output();
    require_service("no message at all");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto& center = fuzz::Fuzz_Center::instance();
    center.take_replies();
    std::string_view message = fuzz::text_of(data, size);
    const long type = take_type(message);
    message = message.substr(0, message_bytes_max);
    require(center.send_request(type, message), "the queue has room", message);
    require_service(message);
    center.reset();
    return 0;
}
