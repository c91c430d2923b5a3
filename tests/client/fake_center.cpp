// SPDX-License-Identifier: Apache-2.0
#include "fake_center.h"

#include <gtest/gtest.h>

#include <utility>

namespace {

// How long stopping takes at most.
constexpr std::chrono::milliseconds request_wait{20};

// The value of a field as it stands in a text without blanks, less the quotes of a string.
std::string value_of(std::string text, const std::string& field) {
    for (const char blank : {'\t', '\n', ' '}) {
        std::erase(text, blank);
    }
    const std::string start = "\"" + field + "\":";
    const std::size_t found = text.find(start);
    if (found == std::string::npos) {
        return "";
    }
    const std::size_t value = found + start.size();
    std::string raw = text.substr(value, text.find_first_of(",}", value) - value);
    std::erase(raw, '"');
    return raw;
}

std::string listed(const std::vector<int>& numbers) {
    std::string text = "[";
    for (const int number : numbers) {
        text += (text.size() > 1 ? "," : "") + std::to_string(number);
    }
    return text + "]";
}

// As far as the first zero byte.
std::string text_of(const Raw_Message& message) {
    return message.text.substr(0, message.text.find('\0'));
}

}  // namespace

Fake_Center::Fake_Center() {
    Raw_Queue::of_requests().make();
    Raw_Queue::of_replies().make();
    serving_ = std::thread([this] { serve(); });
}

Fake_Center::~Fake_Center() {
    stopping_ = true;
    serving_.join();
}

void Fake_Center::configure(int channels, const std::vector<int>& page_sizes) {
    const std::lock_guard guard(lock_);
    channels_ = channels;
    page_sizes_ = page_sizes;
}

void Fake_Center::answer(const std::string& bytes) {
    const std::lock_guard guard(lock_);
    answers_.push_back(bytes);
}

std::vector<std::string> Fake_Center::requests() {
    const std::lock_guard guard(lock_);
    return std::exchange(requests_, {});
}

void Fake_Center::serve() {
    while (!stopping_) {
        const auto request = Raw_Queue::of_requests().take(0, request_wait);
        if (!request) {
            continue;
        }
        const std::string reply = note(*request);
        const long asker = std::atol(value_of(text_of(*request), "pid").c_str());
        EXPECT_TRUE(Raw_Queue::of_replies().send(reply, asker)) << reply;
    }
}

// The answer, too.
std::string Fake_Center::note(const Raw_Message& request) {
    const std::string text = text_of(request);
    EXPECT_EQ(request.type, 1) << text;
    EXPECT_EQ(request.text.size(), 1028U) << text;
    EXPECT_EQ(request.text.find_first_not_of('\0', text.size()), std::string::npos) << text;
    const std::lock_guard guard(lock_);
    requests_.push_back(text);
    if (answers_.empty()) {
        return usual_answer(text);
    }
    std::string answer = answers_.front();
    answers_.pop_front();
    return answer;
}

std::string Fake_Center::usual_answer(const std::string& request) const {
    const std::string command = value_of(request, "command");
    const std::string name = value_of(request, "name");
    const bool is_producer = value_of(request, "type") == "Distributor";
    if (command == "query_shm") {
        return query_reply(std::to_string(channels_), std::to_string(page_sizes_.size()),
                           listed(page_sizes_));
    }
    if (command == "deregister") {
        return R"({"command":"deregister","status":"success"})";
    }
    return channel_reply(command, is_producer ? name : value_of(request, "pair_name"),
                         is_producer ? "SRC" : "DST", name, value_of(request, "channel"),
                         value_of(request, "stream"));
}

std::string query_reply(const std::string& channel, const std::string& stream,
                        const std::string& page_size) {
    return R"({"command":"query_shm","status":"success","root_path":"/dev/shm","shm_path":"shm")"
           R"(,"channel":)" +
           channel + ",\"stream\":" + stream + ",\"page_size\":" + page_size + "}";
}

std::string channel_reply(const std::string& command, const std::string& producer,
                          const std::string& side, const std::string& name,
                          const std::string& channel, const std::string& stream) {
    const std::string pair = channel + "_" + stream;
    const std::string semaphore = "/" + side + "_" + name + "_SEM_" + pair + "_";
    return R"({"command":")" + command + R"(","status":"success","shm_path":"/shm/)" + producer +
           "_" + pair + R"(","sem_path_src":")" + semaphore + R"(0","sem_path_dst":")" + semaphore +
           R"(1","sem_path_exist":")" + semaphore + "2\"}";
}
