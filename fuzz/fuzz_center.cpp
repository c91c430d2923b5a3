// SPDX-License-Identifier: Apache-2.0
#include "fuzz/fuzz_center.h"

#include <sys/ipc.h>
#include <sys/msg.h>

#include <algorithm>
#include <cstdlib>

#include "bench/private_namespaces.h"
#include "control/control_protocol.h"
#include "fuzz/fuzz_target.h"

namespace zav_shm::fuzz {

namespace {

// The kernel's default limit of one message.
constexpr std::size_t message_bytes_max = 8192;

struct Message {
    long type;
    char text[message_bytes_max];
};

// Small, and with each distinction that requests are checked for: a name that is listed twice, one
// of the greatest length, a stream number beyond the last, a name without streams, and a producer
// that is called like the word for none.
constexpr const char* configuration = R"({
    "Stream": [{"index": 0, "page_size": 4096}, {"index": 1, "page_size": 512}],
    "Distributor": [
        {"name": "CAM", "channel": 1, "stream": [0]},
        {"name": "CAM", "channel": 2, "stream": [0, 1]},
        {"name": "ABCDEFGHIJKLMNOPQRSTUVWXYZ_1234", "channel": 1, "stream": [0, 1, 2]},
        {"name": "NONE", "channel": 1, "stream": []}],
    "Receiver": [
        {"name": "PLAYER", "channel": 2, "stream": [0, 1, 2]},
        {"name": "VIEWER", "channel": 1, "stream": [0]}]})";

// scripts and CTest may have done this already.
void enter_private_namespaces() {
    if (std::getenv("ZAV_SHM_PRIVATE_NAMESPACES") == nullptr) {
        require(bench::enter_private_namespaces(), "private namespaces can be entered");
    }
}

// Calls `action` with every channel that the manager has made for these names.
template <class Records, class Action>
void for_each_channel(const Records& records, std::size_t streams, const Action& action) {
    for (const auto* const record : records) {
        for (int channel = 0; channel < record->channel; ++channel) {
            for (int stream = 0; stream < static_cast<int>(streams); ++stream) {
                action(Shm_Stream_Transmission_Index(record->name, channel, stream));
            }
        }
    }
}

}  // namespace

Fuzz_Center& Fuzz_Center::instance() {
    static Fuzz_Center* const only = std::unique_ptr<Fuzz_Center>(new Fuzz_Center).release();
    return *only;
}

Fuzz_Center::Fuzz_Center() : config_(std::make_unique<ZAV_SHM_CONFIG>()) {
    enter_private_namespaces();
    require(config_->parse_config_with_json(configuration) && config_->verify_config() == 1,
            "the configuration loads", config_->error());
    ZAV_SHM_CONFIG* config = config_.get();
    center_ = std::make_unique<ZAV_SHM_CENTER>(config);
    require(requests_.open(control::request_project) && replies_.open(control::reply_project),
            "both queues can be opened");
    stop_relays();
}

// Asked first, so that they end at the same time.
void Fuzz_Center::stop_relays() {
    for_each_channel(config_->distributors(), config_->streams().size(), [this](const auto& key) {
        relays_.insert(center_->manager()->get_transmission(key));
    });
    for (auto* const relay : relays_) {
        relay->request_stop();
    }
    for (auto* const relay : relays_) {
        relay->stop();
    }
}

bool Fuzz_Center::send_request(long type, std::string_view bytes) {
    Message message{};
    message.type = type;
    require(bytes.size() <= sizeof message.text, "a message is not longer than a queue allows");
    bytes.copy(message.text, bytes.size());
    return msgsnd(requests_.id, &message, bytes.size(), IPC_NOWAIT) == 0;
}

std::vector<Reply> Fuzz_Center::take_replies() {
    std::vector<Reply> taken;
    Message message{};
    ssize_t length = 0;
    while ((length = msgrcv(replies_.id, &message, sizeof message.text, 0, IPC_NOWAIT)) >= 0) {
        taken.push_back(
            {message.type, std::string(message.text, static_cast<std::size_t>(length))});
    }
    return taken;
}

// Unpairing is slow once the center remembers many names.
void Fuzz_Center::reset() {
    const bool paired = std::any_of(relays_.begin(), relays_.end(),
                                    [](auto* relay) { return relay->get_distributor_num() > 0; });
    if (paired) {
        for_each_channel(config_->receivers(), config_->streams().size(),
                         [this](const auto& key) { center_->manager()->remove_distributor(key); });
    }
    center_->enable_kick_idle_client(false);
}

}  // namespace zav_shm::fuzz
