// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "apps/tool/caught_signals.h"
#include "apps/tool/options.h"
#include "apps/tool/problem.h"
#include "apps/tool/stop_signal.h"
#include "apps/tool/trigger_pipe.h"

namespace zav_shm::tool {

/// Everything that begins an event: signals, lines on standard input, and `zav-shm trigger`. Built
/// before any thread, as Stop_Signal.
class Trigger_Source {
public:
    /// What each --trigger may be: "command", "stdin", or the name of a signal, "SIGUSR1" or
    /// "USR1".
    ///
    /// @return what is wrong with the word, or nothing.
    static std::string mistake(const std::string& word);

    /// @param word  without mistake()
    static void add(const std::string& word, Trigger_Options& options);

    explicit Trigger_Source(const Record_Options& options);

    /// How many triggers came since the last call; of very many, the next call counts the rest.
    /// Never waits. Looks after the pipe of `zav-shm trigger`, so it wants to be called each
    /// second.
    std::uint64_t take();

    /// Waits until one has come, a signal to stop, or the time is over.
    void wait_until(Stop_Signal::Clock::time_point end, const Stop_Signal& stop);

    /// Where triggers may come from, in words.
    std::string title() const;

private:
    std::uint64_t take_lines();
    void keep_pipe();

    const Trigger_Options& options_;
    const Caught_Signals signals_;
    std::optional<Trigger_Pipe> pipe_;
    Stop_Signal::Clock::time_point next_look_;  // for the pipe
    bool told_no_pipe_ = false;
    bool has_lines_;  // standard input has not ended
};

}  // namespace zav_shm::tool
