// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/key_request_action.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <string_view>

namespace zav_shm::tool {

namespace {

constexpr std::string_view signal_prefix = "signal:";
constexpr std::string_view descriptor_prefix = "fd:";
constexpr std::string_view line = "key_frame\n";

// Process 1 is no encoder, and 0 and negative numbers mean groups of processes.
constexpr pid_t least_process = 2;

std::optional<int> parse_number(std::string_view text) {
    int value = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end || value < 0) {
        return {};
    }
    return value;
}

// "USR1" or "SIGUSR1"
std::optional<int> parse_signal(std::string_view text) {
    if (text.starts_with("SIG")) {
        text.remove_prefix(3);
    }
    for (int number = 1; number < NSIG; ++number) {
        const char* const name = sigabbrev_np(number);
        if (name != nullptr && text == name) {
            return number;
        }
    }
    return {};
}

bool is_open_for_writing(int descriptor) {
    const int flags = fcntl(descriptor, F_GETFL);
    return flags != -1 && (flags & O_ACCMODE) != O_RDONLY;
}

std::string write_line(int descriptor) {
    pollfd look{descriptor, POLLOUT, 0};
    if (poll(&look, 1, 0) != 1) {
        return "nobody reads it";
    }
    return write(descriptor, line.data(), line.size()) == static_cast<ssize_t>(line.size())
               ? std::string()
               : std::strerror(errno);
}

}  // namespace

std::optional<Key_Request_Action> parse_key_request_action(const std::string& text) {
    const std::string_view whole(text);
    if (whole.starts_with(descriptor_prefix)) {
        const auto descriptor = parse_number(whole.substr(descriptor_prefix.size()));
        return descriptor
                   ? std::optional(Key_Request_Action{.kind = Key_Request_Action::Kind::descriptor,
                                                      .descriptor = *descriptor})
                   : std::nullopt;
    }
    const std::size_t colon = whole.rfind(':');
    if (!whole.starts_with(signal_prefix) || colon < signal_prefix.size()) {
        return {};
    }
    const auto process =
        parse_number(whole.substr(signal_prefix.size(), colon - signal_prefix.size()));
    const auto signal = parse_signal(whole.substr(colon + 1));
    if (!process || *process < least_process || !signal) {
        return {};
    }
    return Key_Request_Action{
        .kind = Key_Request_Action::Kind::signal, .process = *process, .signal = *signal};
}

std::string key_request_action_mistake(const std::string& text) {
    const auto action = parse_key_request_action(text);
    if (!action) {
        return "'" + text +
               "' is neither signal:PID:NAME, such as signal:1234:USR1 with a process from 2 on, "
               "nor fd:N";
    }
    if (action->kind == Key_Request_Action::Kind::descriptor &&
        !is_open_for_writing(action->descriptor)) {
        return "descriptor " + std::to_string(action->descriptor) + " is not open for writing";
    }
    return {};
}

std::string carry_out(const Key_Request_Action& action) {
    switch (action.kind) {
        case Key_Request_Action::Kind::none:
            break;
        case Key_Request_Action::Kind::signal:
            if (kill(action.process, action.signal) != 0) {
                return "cannot tell process " + std::to_string(action.process) + ": " +
                       std::strerror(errno);
            }
            break;
        case Key_Request_Action::Kind::descriptor:
            if (const std::string trouble = write_line(action.descriptor); !trouble.empty()) {
                return "cannot write to descriptor " + std::to_string(action.descriptor) + ": " +
                       trouble;
            }
            break;
    }
    return {};
}

}  // namespace zav_shm::tool
