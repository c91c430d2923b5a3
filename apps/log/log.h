// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>

namespace zav_shm {

/// How much a line matters; the numbers are those of syslog and of the journal.
enum class Log_Level {
    error = 3,    // something does not work
    warning = 4,  // something was refused or repaired; it goes on
    notice = 5,   // what an operator wants to have read: begin, end, another center
    info = 6,     // who comes, goes and is paired
    debug = 7     // for those who look for a fault
};

inline constexpr Log_Level log_level_default = Log_Level::notice;

/// The names that --log-level takes: "error", "warning", "notice", "info", "debug".
std::optional<Log_Level> log_level_of(const std::string& name);

inline constexpr const char* log_level_names = "error, warning, notice, info, debug";

/// Names the program in front of every line, and leaves out what matters less than `least`. Under
/// systemd, when standard error is the journal, lines begin with their priority, "<4>", instead of
/// the program's name, which the journal has.
void open_log(const char* program, Log_Level least = log_level_default);

/// Whether such a line would be written: for those whose text is costly to make.
bool is_logged(Log_Level level);

/// Writes "PROGRAM: OBJECT: TEXT" as one line to standard error, in printable form, with one write:
/// lines of several threads and processes do not mix.
///
/// The object comes first, so that a search for it finds all that happened to it: a stream as
/// CAM_LOOP/0/1, a path, a client's address. An object that has had ten lines at once gets one a
/// second from then on; the next one that is written tells how many were left out.
///
/// Threads  any. Blocks as a write to standard error does, never for the limit.
void write_log(Log_Level level, const std::string& object, const std::string& text);

/// The same for a text that names its object itself, with its first words. The limit counts equal
/// texts.
void write_log(Log_Level level, const std::string& text);

}  // namespace zav_shm
