// SPDX-License-Identifier: Apache-2.0
//
// The only file that includes the command-line library, which takes long to compile.
#include "apps/centerd/arguments.h"

#include <CLI/CLI.hpp>
#include <array>
#include <cstdio>
#include <cstdlib>

#include "apps/centerd/outcome.h"
#include "apps/log/log_level_option.h"

namespace zav_shm::centerd {

namespace {

// A day: more is a slip of the unit.
constexpr double kick_interval_max_s = 86'400;

constexpr const char* description =
    "Hosts the center of zav_shm: makes the channels of a configuration and answers clients.";

constexpr const char* statuses =
    "Exit status: 0 ended in order (--check: could start), 1 system error, 2 usage,\n"
    "3 configuration refused, 4 already running, 5 no room in /dev/shm.";

// A client reads and writes queues and semaphores, so half a permission is none.
std::string mode_mistake(const std::string& text) {
    return text == "0600" || text == "0660" || text == "0666" || text == "600" || text == "660" ||
                   text == "666"
               ? ""
               : "'" + text + "' is none of 0600, 0660 and 0666";
}

// CLI11's own check of a range lets "nan" pass.
std::string interval_mistake(const std::string& text) {
    char* end = nullptr;
    const double seconds = std::strtod(text.c_str(), &end);
    if (end != text.c_str() && *end == '\0' && seconds >= 0 && seconds <= kick_interval_max_s) {
        return "";
    }
    std::array<char, 32> limit{};
    std::snprintf(limit.data(), limit.size(), "%g", kick_interval_max_s);
    return "'" + text + "' is not a number of seconds from 0 to " + limit.data();
}

std::string group_mistake(const std::string& text) {
    return text.empty() ? "the name is empty" : "";
}

void add_options(CLI::App& app, Options& options, double& kick_seconds, std::string& mode) {
    app.set_version_flag("--version", "zav-shm-centerd " ZAV_SHM_VERSION, "Print the version");
    app.add_option("--config", options.config_path,
                   "Configuration file; without one the built-in defaults, whose clients are "
                   "refused every stream")
        ->type_name("FILE")
        ->check(CLI::Validator([](const std::string& text) { return group_mistake(text); }, ""));
    app.add_flag("--check", options.check,
                 "Print what would be made and refused, make nothing, and tell by the exit status "
                 "whether the daemon could start");
    app.add_option("--kick-interval", kick_seconds,
                   "Seconds between two looks for consumers that stopped taking frames; 0: never")
        ->type_name("SECONDS")
        ->check(CLI::Validator(interval_mistake, ""))
        ->capture_default_str();
    app.add_option("--group", options.group, "Whose processes may be clients, beside the own user")
        ->type_name("NAME")
        ->check(CLI::Validator(group_mistake, ""));
    app.add_option("--mode", mode,
                   "Permissions of queues, segments and semaphores: 0600, 0660 or 0666 "
                   "[0600; with --group 0660]")
        ->type_name("OCTAL")
        ->check(CLI::Validator(mode_mistake, ""));
    app.add_option("--hand-over", options.hand_over,
                   "Give what earlier centers and clients have left to this user and end; for "
                   "root, before a center of that user starts")
        ->type_name("USER")
        ->check(CLI::Validator(group_mistake, ""));
    app.add_flag("--clean", options.clean,
                 "Remove segments, semaphores and queues at the end; otherwise they stay");
    add_log_level(app, options.log_level);
}

int ended_at_once(const CLI::App& app, const CLI::ParseError& reason) {
    if (reason.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
        return app.exit(reason);
    }
    return exit_code(
        failure(Exit_Status::usage, std::string(reason.what()) + "; --help lists the arguments"));
}

}  // namespace

std::variant<Options, int> read_arguments(int argc, const char* const* argv) {
    Options options;
    double kick_seconds = std::chrono::duration<double>(options.kick_interval).count();
    std::string mode;
    CLI::App app(description, "zav-shm-centerd");
    app.footer(statuses);
    add_options(app, options, kick_seconds, mode);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& reason) {
        return ended_at_once(app, reason);
    }
    options.kick_interval =
        std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(kick_seconds));
    if (!mode.empty()) {
        options.mode = static_cast<mode_t>(std::stoul(mode, nullptr, 8));
    }
    return options;
}

}  // namespace zav_shm::centerd
