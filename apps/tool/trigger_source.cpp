// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/trigger_source.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string_view>
#include <utility>

#include "ipc/shared_memory_folder.h"

namespace zav_shm::tool {

namespace {

constexpr std::string_view command_word = "command";
constexpr std::string_view line_word = "stdin";

// Those that nothing else uses, and that mean nothing to the system.
constexpr std::array<std::pair<std::string_view, int>, 3> signals{
    {{"USR1", SIGUSR1}, {"USR2", SIGUSR2}, {"ALRM", SIGALRM}}};

std::optional<int> signal_of(std::string_view word) {
    if (word.starts_with("SIG")) {
        word.remove_prefix(3);
    }
    for (const auto& [name, number] : signals) {
        if (word == name) {
            return number;
        }
    }
    return {};
}

constexpr std::chrono::seconds look_interval{1};

}  // namespace

std::string Trigger_Source::mistake(const std::string& word) {
    return word == command_word || word == line_word || signal_of(word)
               ? std::string()
               : "'" + word + "' is none of SIGUSR1, SIGUSR2, SIGALRM, stdin and command";
}

void Trigger_Source::add(const std::string& word, Trigger_Options& options) {
    if (const auto number = signal_of(word)) {
        options.signals.push_back(*number);
    }
    options.commands = options.commands || word == command_word;
    options.lines = options.lines || word == line_word;
}

Trigger_Source::Trigger_Source(const Record_Options& options)
    : options_(options.triggers),
      signals_(options.triggers.signals),
      has_lines_(options.triggers.lines) {
    if (options_.commands) {
        const std::string& name = options.tap ? options.producer : options.name;
        pipe_.emplace(rings_folder(options.folder),
                      channel_file_name(name, options.channel, options.stream));
        keep_pipe();
    }
}

// The folder may be missing until a publisher comes, and anybody may remove the pipe; of anything
// else a line tells.
void Trigger_Source::keep_pipe() {
    next_look_ = Stop_Signal::Clock::now() + look_interval;
    if (!pipe_ || pipe_->keep()) {
        told_no_pipe_ = false;
        return;
    }
    if (errno != ENOENT && !std::exchange(told_no_pipe_, true)) {
        complain("zav-shm trigger does not reach this recorder: cannot make the pipe " +
                 pipe_->path() + ": " + std::strerror(errno));
    }
}

std::uint64_t Trigger_Source::take() {
    if (Stop_Signal::Clock::now() >= next_look_) {
        keep_pipe();
    }
    return signals_.take() + take_lines() + (pipe_ ? pipe_->take() : 0);
}

// Standard input may block, and belongs to others, too: it is asked before it is read, and keeps
// its flags. Once only: somebody may write to it without end.
std::uint64_t Trigger_Source::take_lines() {
    std::array<char, 4096> block{};
    pollfd input{STDIN_FILENO, POLLIN, 0};
    if (!has_lines_ || poll(&input, 1, 0) != 1) {
        return 0;
    }
    const ssize_t got = read(STDIN_FILENO, block.data(), block.size());
    if (got > 0) {
        return static_cast<std::uint64_t>(std::count(block.begin(), block.begin() + got, '\n'));
    }
    if (got == 0 || (errno != EINTR && errno != EAGAIN)) {
        has_lines_ = false;
        complain("standard input has ended: it triggers nothing any more");
    }
    return 0;
}

void Trigger_Source::wait_until(Stop_Signal::Clock::time_point end, const Stop_Signal& stop) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Stop_Signal::Clock::now());
    const auto timeout = std::clamp<std::chrono::milliseconds::rep>(left.count(), 0, 60'000);
    std::array<pollfd, 4> waited{{{stop.descriptor(), POLLIN, 0},
                                  {signals_.descriptor(), POLLIN, 0},
                                  {has_lines_ ? STDIN_FILENO : -1, POLLIN, 0},
                                  {pipe_ ? pipe_->descriptor() : -1, POLLIN, 0}}};
    poll(waited.data(), waited.size(), static_cast<int>(timeout));
}

std::string Trigger_Source::title() const {
    std::string text;
    for (const auto& [name, number] : signals) {
        const bool is_one = std::find(options_.signals.begin(), options_.signals.end(), number) !=
                            options_.signals.end();
        text += is_one ? (text.empty() ? "SIG" : ", SIG") + std::string(name) : "";
    }
    if (options_.lines) {
        text += std::string(text.empty() ? "" : ", ") + "a line on standard input";
    }
    if (options_.commands) {
        text += std::string(text.empty() ? "" : ", ") + "zav-shm trigger";
    }
    return text;
}

}  // namespace zav_shm::tool
