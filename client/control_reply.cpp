// SPDX-License-Identifier: Apache-2.0
#include "client/control_reply.h"

#include <ostream>

namespace zav_shm {

bool Control_Reply::contradicts(const char* field, const char* expected) const {
    return is_text(field) && text(field) != expected;
}

bool Control_Reply::answers(const char* command) const {
    return text(control::field::command) == command;
}

bool Control_Reply::grants(const char* command) const {
    return answers(command) && text(control::field::status) == control::status::success;
}

bool Control_Reply::is_integer(const char* field) const { return at(field).isInt(); }

std::ostream& operator<<(std::ostream& out, const Control_Reply& reply) {
    return out << reply.root();
}

}  // namespace zav_shm
