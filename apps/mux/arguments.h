// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <variant>

#include "apps/mux/muxer.h"
#include "apps/tool/options.h"
#include "apps/tool/problem.h"

namespace zav_shm::mux {

/// What the command line asks for.
struct Options {
    tool::Record_Options record;
    Container container = Container::mp4;
    std::optional<tool::Consumer_Options> sounds;
};

/// @return the options; or the status to exit with at once, after help or version went to standard
///         output, or a complaint to standard error.
std::variant<Options, tool::Exit_Status> read_arguments(int argc, const char* const* argv);

}  // namespace zav_shm::mux
