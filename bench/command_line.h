// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <getopt.h>

#include <functional>
#include <optional>
#include <span>

namespace zav_shm::bench {

/// The option's value, if it is a number within the limits; otherwise says what is wrong.
std::optional<double> number_option(const char* option, const char* text, double least,
                                    double most);

/// Hands every option of a command line on: its letter, and its text if it has one.
///
/// @param known  as for getopt_long, with its empty last one; 'h' prints the usage
/// @param apply  false when the text is wrong, which it has said
/// @return false when the program is to end with `exit_status`.
bool read_command_line(int argc, char** argv, std::span<const option> known, const char* usage,
                       const std::function<bool(int letter, const char* text)>& apply,
                       int& exit_status);

}  // namespace zav_shm::bench
