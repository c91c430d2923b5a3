// SPDX-License-Identifier: Apache-2.0
#pragma once

// The control protocol between the center and its clients: the words and fields of its JSON
// texts, how they are written, and one reader for both directions. docs/protocol.md has a row
// per command.
//
// Whatever arrives on a queue is hostile; the reader is as tolerant as json_text.h says.

#include <json/json.h>

#include <string>
#include <vector>

namespace zav_shm::control {

/// Project numbers of the two queues on /tmp.
inline constexpr int request_project = 5120;  // clients to center
inline constexpr int reply_project = 5121;    // center to clients

/// Message type of every request; a reply has the pid of the client it is for.
inline constexpr long request_type = 1;

namespace command {
inline constexpr const char* register_end = "register";
inline constexpr const char* deregister_end = "deregister";
inline constexpr const char* pair_source = "pair_src";
inline constexpr const char* query_shm = "query_shm";
inline constexpr const char* kick_idle = "kick_idle";
inline constexpr const char* query_status = "query_status";
}  // namespace command

namespace field {
inline constexpr const char* command = "command";
inline constexpr const char* type = "type";
inline constexpr const char* name = "name";
inline constexpr const char* pair_name = "pair_name";
inline constexpr const char* channel = "channel";
inline constexpr const char* stream = "stream";
inline constexpr const char* pid = "pid";
inline constexpr const char* enable = "enable";
inline constexpr const char* status = "status";
inline constexpr const char* reason = "reason";
inline constexpr const char* shm_path = "shm_path";
inline constexpr const char* root_path = "root_path";
inline constexpr const char* sem_path_src = "sem_path_src";
inline constexpr const char* sem_path_dst = "sem_path_dst";
inline constexpr const char* sem_path_exist = "sem_path_exist";
inline constexpr const char* page_size = "page_size";
}  // namespace field

namespace status {
inline constexpr const char* success = "success";
inline constexpr const char* fail = "fail";                  // refused register, deregister
inline constexpr const char* invalid_name = "invalid_name";  // refused query_shm, pair_src
}  // namespace status

namespace type {
inline constexpr const char* distributor = "Distributor";  // a producer's channel end
inline constexpr const char* receiver = "Receiver";        // a consumer's channel end
}  // namespace type

/// The "pair_name" of a consumer that is to be fed from no producer.
inline constexpr const char* no_producer = "NONE";

/// The fields of one request or reply.
class Fields {
public:
    explicit Fields(const std::string& text);

    /// The field as documented conversions read it; "", 0 or false when missing.
    std::string text(const char* field) const;
    int number(const char* field) const;
    bool flag(const char* field) const;

    /// The numbers of an array; an element that is none reads as 0.
    std::vector<int> numbers(const char* field) const;

    /// True when the field is there and a string.
    bool is_text(const char* field) const;

protected:
    /// The whole text as it was understood; null when nothing was.
    const Json::Value& root() const { return root_; }

    /// Null when missing.
    const Json::Value& at(const char* field) const;

private:
    Json::Value root_;
};

/// All fields that requests have; the others are left at what "missing" reads as.
struct Request {
    explicit Request(const std::string& text);

    std::string type;
    std::string name;
    std::string pair_name;
    int channel;
    int stream;
    int pid;  // of the client; the message type of its reply
};

/// The two writing styles: replies and "pair_src" requests are indented by tabs, the other
/// requests stand on one line.
std::string written_with_tabs(const Json::Value& object);
std::string written_on_one_line(const Json::Value& object);

}  // namespace zav_shm::control
