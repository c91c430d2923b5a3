// SPDX-License-Identifier: Apache-2.0
#include "client/control_reply.h"

#include <exception>
#include <ostream>

namespace zav_shm {

namespace {

// As control::Fields parses, whose tree cannot be printed.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
Json::Value parsed(const std::string& text) {
    try {
        Json::Value root;
        Json::Reader reader;
        // What was read before an error is used, so the result says nothing.
        static_cast<void>(reader.parse(text, root, true));
        return root;
    } catch (const std::exception&) {
        return {};  // nested too deep
    }
}
#pragma GCC diagnostic pop

}  // namespace

Control_Reply::Control_Reply(const std::string& text) : Fields(text), root_(parsed(text)) {}

bool Control_Reply::contradicts(const char* field, const char* expected) const {
    return is_text(field) && text(field) != expected;
}

bool Control_Reply::answers(const char* command) const {
    return text(control::field::command) == command;
}

bool Control_Reply::grants(const char* command) const {
    return answers(command) && text(control::field::status) == control::status::success;
}

bool Control_Reply::is_integer(const char* field) const {
    return root_.isObject() && root_[field].isInt();
}

std::ostream& operator<<(std::ostream& out, const Control_Reply& reply) {
    return out << reply.root_;
}

}  // namespace zav_shm
