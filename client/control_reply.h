// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/json.h>

#include <iosfwd>
#include <memory>
#include <string>

#include "control/control_protocol.h"

namespace zav_shm {

/// A reply of the center, as the clients judge it. Like the fields it is total: any text reads as
/// something, and what is missing or of the wrong type reads as missing.
class Control_Reply : public control::Fields {
public:
    using Fields::Fields;

    /// True when the field is there, a string, and another one. A missing field contradicts
    /// nothing.
    bool contradicts(const char* field, const char* expected) const;

    /// True when this is an answer to the command, whatever it says.
    bool answers(const char* command) const;

    /// True when this is an answer to the command and says "success".
    bool grants(const char* command) const;

    /// True when the field is there and a number without a fraction that an int can hold.
    bool is_integer(const char* field) const;

    /// The end of the channel that the reply names. What cannot be opened shows in its calls.
    template <class Endpoint>
    std::unique_ptr<Endpoint> open_endpoint() const {
        return std::make_unique<Endpoint>(
            text(control::field::shm_path), text(control::field::sem_path_src),
            text(control::field::sem_path_dst), text(control::field::sem_path_exist));
    }

    /// The whole reply as it was understood, indented by tabs; "null" when nothing was.
    friend std::ostream& operator<<(std::ostream& out, const Control_Reply& reply);
};

}  // namespace zav_shm
