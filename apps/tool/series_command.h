// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "apps/text/duration_text.h"
#include "apps/tool/command.h"
#include "apps/tool/file_name_pattern.h"
#include "apps/tool/trigger_source.h"

namespace zav_shm::tool {

/// A command that writes a series of files, or a file for each event.
class Series_Command : public Command {
protected:
    using Command::Command;

    // A series of files instead of one.
    void series(Record_Options& options) {
        directory_ = app_.add_option("--directory", options.directory,
                                     "Folder for a series of files; instead of --output")
                         ->check(checked_by(file_mistake))
                         ->type_name("FOLDER");
        app_.add_option("--pattern", options.pattern,
                        "Their names, as of strftime in local time [record-%Y%m%d-%H%M%S, or "
                        "event-..., and the codec]")
            ->check(checked_by(pattern_mistake))
            ->needs(directory_)
            ->type_name("PATTERN");
        duration("--segment", options.segment, "Begin a new file after so long, at a key frame")
            ->check(checked_by(empty_mistake))
            ->needs(directory_);
        app_.add_option_function<std::string>(
                "--segment-bytes",
                [&options](const std::string& text) { options.segment_bytes = *parse_size(text); },
                "Begin a new file after so much, such as 10M, at a key frame")
            ->check(checked_by(size_mistake))
            ->needs(directory_)
            ->type_name("BYTES");
    }

    // A file for each event.
    void events(Record_Options& options) {
        trigger_ = app_.add_option_function<std::vector<std::string>>(
                           "--trigger",
                           [&options](const std::vector<std::string>& words) {
                               for (const std::string& word : words) {
                                   Trigger_Source::add(word, options.triggers);
                               }
                           },
                           "Wait, and write a file for each event that this begins: SIGUSR1, "
                           "SIGUSR2, SIGALRM, stdin (a line of it), or command (zav-shm trigger); "
                           "several with commas")
                       ->delimiter(',')
                       ->check(checked_by(Trigger_Source::mistake))
                       ->needs(directory_)
                       ->type_name("TRIGGER");
        before_ = duration("--before", options.before,
                           "What an event holds at least from before its trigger, such as 10s");
        after_ = duration("--after", options.after,
                          "What it holds at least from after its last trigger");
        trigger_->needs(before_)->needs(after_);
        before_->needs(trigger_);
        after_->needs(trigger_);
    }

    CLI::Option* duration(const char* name, std::chrono::nanoseconds& target,
                          const char* description) {
        return app_
            .add_option_function<std::string>(
                name, [&target](const std::string& text) { target = *parse_duration(text); },
                description)
            ->check(checked_by(duration_mistake))
            ->type_name("TIME");
    }

    static std::string empty_mistake(const std::string& text) {
        const auto time = parse_duration(text);
        return time && time->count() == 0 ? "it has to be more than nothing" : "";
    }

    // @param unwanted  options that do not go with events
    std::optional<std::string> event_mistake(
        const Record_Options& options, const std::vector<const CLI::Option*>& unwanted) const {
        if (trigger_->count() == 0) {
            return folder_->count() != 0 && !options.tap
                       ? std::optional<std::string>("--folder needs --tap, or --trigger command")
                       : std::nullopt;
        }
        for (const CLI::Option* option : unwanted) {
            if (option->count() != 0) {
                return option->get_name() + " does not go with --trigger";
            }
        }
        return folder_->count() != 0 && !options.tap && !options.triggers.commands
                   ? std::optional<std::string>("--folder needs --tap, or --trigger command")
                   : std::nullopt;
    }

    CLI::Option* directory_ = nullptr;
    CLI::Option* trigger_ = nullptr;
    CLI::Option* before_ = nullptr;
    CLI::Option* after_ = nullptr;
};

}  // namespace zav_shm::tool
