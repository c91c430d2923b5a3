// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "apps/text/duration_text.h"
#include "apps/text/reading_start.h"
#include "apps/tool/argument_checks.h"
#include "apps/tool/options.h"

// What the files that define commands share. Only they include the command-line library, which
// takes long to compile. A command's options are read as texts where that library's own conversion
// would be lenient, and checked before anything is done.

namespace zav_shm::tool {

inline constexpr std::uint64_t count_max = 1'000'000'000'000;
inline constexpr std::uint64_t history_max = 4'294'967'295;  // bytes
inline constexpr double pace_seconds_max = 60;

inline constexpr const char* exit_statuses =
    "Exit status: 0 ok, 1 frames lost (--strict), left out or damaged, 2 usage, 3 no center,\n"
    "4 refused by the center, 5 input or output error, 6 control queues or shared memory cannot\n"
    "be used, or another process publishes the stream.";

inline CLI::Validator whole(std::uint64_t least, std::uint64_t greatest) {
    return {[least, greatest](std::string& text) {
                return whole_number_mistake(text, least, greatest);
            },
            ""};
}

inline CLI::Validator checked_by(std::string (*mistake)(const std::string&)) {
    return {[mistake](std::string& text) { return mistake(text); }, ""};
}

inline CLI::Validator either(const std::string& one, const std::string& other) {
    return {[one, other](std::string& text) { return choice_mistake(text, one, other); }, ""};
}

/// One command: what it is called, and how its texts become options once all of them are there.
class Command {
public:
    Command(CLI::App& app, const char* name, const char* description)
        : app_(*app.add_subcommand(name, description)) {}

    /// @param app  takes the options
    explicit Command(CLI::App& app) : app_(app) {}
    virtual ~Command() = default;
    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;

    bool was_given() const { return app_.parsed(); }

    /// @return what is wrong with the options together, or nothing.
    virtual std::optional<std::string> finish() { return {}; }
    virtual Options options() const = 0;

protected:
    CLI::Option* number(const char* name, auto& target, std::uint64_t least, std::uint64_t greatest,
                        const char* description) {
        return app_.add_option(name, target, description)
            ->check(whole(least, greatest))
            ->type_name("N");
    }

    // Milliseconds from a number of seconds.
    CLI::Option* seconds(const char* name, std::chrono::milliseconds& target, double least,
                         const char* description, double greatest = seconds_max) {
        return app_
            .add_option_function<double>(
                name,
                [&target](double value) {
                    target = std::chrono::ceil<std::chrono::milliseconds>(
                        std::chrono::duration<double>(value));
                },
                description)
            ->check(CLI::Validator(
                [least, greatest](std::string& text) {
                    return number_mistake(text, least, greatest);
                },
                ""))
            ->type_name("SECONDS");
    }

    void common(Common_Options& options, int wait_s, const char* wait_default) {
        options.wait = std::chrono::seconds(wait_s);
        seconds("--wait", options.wait, 0, "How long to look for a center")
            ->default_str(wait_default);
        app_.add_flag("--quiet", options.quiet,
                      "Drop the lines that the libraries print; otherwise they go to standard "
                      "error");
        app_.footer(exit_statuses);
    }

    CLI::Option* name(const char* option, std::string& target, const char* description) {
        return app_.add_option(option, target, description)
            ->check(checked_by(name_mistake))
            ->type_name("NAME");
    }

    CLI::Option* channel(Channel_Options& options) {
        return number("--channel", options.channel, 0, channel_max, "Channel number")
            ->capture_default_str();
    }
    CLI::Option* stream(Channel_Options& options) {
        return number("--stream", options.stream, 0, stream_max, "Stream number")
            ->capture_default_str();
    }

    void json(bool& flag) { app_.add_flag("--json", flag, "Write JSON, an object on each line"); }

    CLI::Option* index(std::string& target, const char* description) {
        return app_.add_option("--index", target, description)
            ->check(checked_by(file_mistake))
            ->type_name("FILE");
    }

    static std::string file_mistake(const std::string& text) {
        return text.empty() ? "the name is empty" : "";
    }

    // The index would overwrite the stream.
    static bool has_own_index(const std::string& file, const std::string& index) {
        return !file.empty() && file != standard_stream && !index.empty() &&
               index != standard_stream && is_same_file(file, index);
    }

    CLI::Option* folder(std::string& target) {
        return app_.add_option("--folder", target, "Folder of the segments below /dev/shm")
            ->check(checked_by(folder_mistake))
            ->type_name("NAME")
            ->capture_default_str();
    }

    // What a producer keeps, and whether it waits.
    //
    // @param paced_when  it does so without being told
    void producer(Producer_Options& options, const char* history, const std::string& paced_when) {
        number("--history", options.history, 1, history_max, history);
        app_.add_flag("--paced", options.paced,
                      "Wait for readers that are behind [" + paced_when + "]");
        seconds("--pace-limit", options.pace_limit, 0,
                "How long a reader that stands still is waited for", pace_seconds_max)
            ->default_str("0.2");
    }

    // Who takes frames, from whom, and from where on.
    void consumer(Consumer_Options& options) {
        name_ = name("--name", options.name, "Consumer, as configured in the center");
        name("--pair", options.producer, "Producer whose frames are wanted")->required();
        tap_ = app_.add_flag("--tap", options.tap,
                             "Read without a name, and without a center; instead of --name")
                   ->excludes(name_);
        folder_ = folder(options.folder);
        from_ =
            app_.add_option_function<std::string>(
                    "--from",
                    [&options](const std::string& text) { options.from = *parse_start(text); },
                    "Where to begin: newest-key (of a live stream), last-key-frame (however old), "
                    "oldest, "
                    "live (with the next frame), or so long ago, such as -10s [newest-key]")
                ->check(checked_by(start_mistake))
                ->type_name("START");
        channel(options);
    }

    std::optional<std::string> consumer_mistake() const {
        return name_->count() + tap_->count() == 0
                   ? std::optional<std::string>("--name is required, or --tap")
                   : std::nullopt;
    }

    CLI::App& app_;

    // Of a consumer.
    CLI::Option* folder_ = nullptr;
    CLI::Option* from_ = nullptr;
    CLI::Option* tap_ = nullptr;

private:
    CLI::Option* name_ = nullptr;
};

using Commands = std::vector<std::unique_ptr<Command>>;

}  // namespace zav_shm::tool
