// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/record_command.h"

#include <vector>

#include "apps/text/duration_text.h"
#include "apps/tool/file_name_pattern.h"
#include "apps/tool/trigger_source.h"

namespace zav_shm::tool {

namespace {

class Record_Command : public Command {
public:
    explicit Record_Command(CLI::App& app)
        : Command(app, "record", "Write a stream's frames to a file or pipe") {
        consumer(options_);
        auto* one = stream(options_);
        streams_ = number("--streams", options_.streams, 0, stream_max,
                          "Two streams to switch between: each change is at a key frame")
                       ->delimiter(',')
                       ->excludes(one);
        auto* every = seconds("--switch-every", options_.switch_every, 0.1,
                              "Time from one change of stream to the next")
                          ->needs(streams_);
        streams_->needs(every);
        app_.add_flag_callback(
                "--switch-at-once",
                [this] { options_.change = ZAV_SHM_Frame_Dual_Subscriber::Change::at_once; },
                "Change to the other stream's last key frame at once, not at its next without a "
                "gap")
            ->needs(streams_);
        file_ = app_.add_option("-o,--output", options_.file, "File to write; - is standard output")
                    ->check(checked_by(file_mistake))
                    ->type_name("FILE");
        series();
        events();
        frames_ = number("--frames", options_.frames, 1, count_max, "End after so many frames");
        seconds("--duration", options_.duration, 0.001, "End after so long");
        app_.add_flag("--any-frame", options_.any_frame, "Do not wait for a key frame to begin")
            ->excludes(streams_);
        app_.add_flag("--keep-all", options_.keep_all,
                      "After a gap do not wait for a key frame to go on");
        app_.add_flag("--ask-for-key-frame", options_.ask_for_key_frame,
                      "Ask the producer for a key frame where one is waited for");
        app_.add_flag("--sync", options_.sync, "Write down to the medium before the end");
        app_.add_flag(
            "--strict", options_.strict,
            "Exit with 1 when a frame was lost, dropped or torn, the recording has a gap, "
            "or none came");
        app_.add_flag("--verify-synthetic", options_.verify_synthetic,
                      "Check the pattern of publish --synthetic");
        index_ =
            index(options_.index,
                  "Also write a line \"stream sequence bytes key offset pts_ns utc_ns\" for each "
                  "frame; - is standard output");
        common(options_, 5, "5");
    }

    std::optional<std::string> finish() override {
        if (auto mistake = consumer_mistake()) {
            return mistake;
        }
        if (auto mistake = target_mistake()) {
            return mistake;
        }
        if (auto mistake = event_mistake()) {
            return mistake;
        }
        if (options_.file == standard_stream && options_.index == standard_stream) {
            return "--index: standard output carries the frames already";
        }
        if (has_own_index(options_.file, options_.index)) {
            return "--index: '" + options_.index + "' is the file that is recorded to";
        }
        if (streams_->count() == 0) {
            options_.streams = {options_.stream};
            return {};
        }
        if (options_.streams.size() != 2 || options_.streams[0] == options_.streams[1]) {
            return "--streams: two different numbers are needed, such as 0,1";
        }
        return {};
    }

    Options options() const override { return options_; }

private:
    // A series of files instead of one.
    void series() {
        directory_ = app_.add_option("--directory", options_.directory,
                                     "Folder for a series of files; instead of --output")
                         ->check(checked_by(file_mistake))
                         ->type_name("FOLDER");
        app_.add_option("--pattern", options_.pattern,
                        "Their names, as of strftime in local time [record-%Y%m%d-%H%M%S, or "
                        "event-..., and the codec]")
            ->check(checked_by(pattern_mistake))
            ->needs(directory_)
            ->type_name("PATTERN");
        duration("--segment", options_.segment, "Begin a new file after so long, at a key frame")
            ->check(checked_by(empty_mistake))
            ->needs(directory_);
        app_.add_option_function<std::string>(
                "--segment-bytes",
                [this](const std::string& text) { options_.segment_bytes = *parse_size(text); },
                "Begin a new file after so much, such as 10M, at a key frame")
            ->check(checked_by(size_mistake))
            ->needs(directory_)
            ->type_name("BYTES");
        app_.add_flag("--index-each", options_.index_each,
                      "Beside each file an index, NAME.index; see --index")
            ->needs(directory_);
    }

    // A file for each event.
    void events() {
        trigger_ = app_.add_option_function<std::vector<std::string>>(
                           "--trigger",
                           [this](const std::vector<std::string>& words) {
                               for (const std::string& word : words) {
                                   Trigger_Source::add(word, options_.triggers);
                               }
                           },
                           "Wait, and write a file for each event that this begins: SIGUSR1, "
                           "SIGUSR2, SIGALRM, stdin (a line of it), or command (zav-shm trigger); "
                           "several with commas")
                       ->delimiter(',')
                       ->check(checked_by(Trigger_Source::mistake))
                       ->needs(directory_)
                       ->excludes(streams_)
                       ->type_name("TRIGGER");
        before_ = duration("--before", options_.before,
                           "What an event holds at least from before its trigger, such as 10s");
        after_ = duration("--after", options_.after,
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

    std::optional<std::string> target_mistake() const {
        if (file_->count() + directory_->count() != 1) {
            return "record needs either --output or --directory";
        }
        if (directory_->count() != 0 && index_->count() != 0) {
            return "--index goes with --output; a series of files has --index-each";
        }
        return {};
    }

    std::optional<std::string> event_mistake() const {
        if (trigger_->count() == 0) {
            return folder_->count() != 0 && !options_.tap
                       ? std::optional<std::string>("--folder needs --tap, or --trigger command")
                       : std::nullopt;
        }
        for (const CLI::Option* option : {frames_, from_}) {
            if (option->count() != 0) {
                return option->get_name() + " does not go with --trigger";
            }
        }
        return folder_->count() != 0 && !options_.tap && !options_.triggers.commands
                   ? std::optional<std::string>("--folder needs --tap, or --trigger command")
                   : std::nullopt;
    }

    Record_Options options_;
    CLI::Option* streams_;
    CLI::Option* file_;
    CLI::Option* frames_;
    CLI::Option* index_;
    CLI::Option* directory_ = nullptr;
    CLI::Option* trigger_ = nullptr;
    CLI::Option* before_ = nullptr;
    CLI::Option* after_ = nullptr;
};

class Trigger_Command : public Command {
public:
    explicit Trigger_Command(CLI::App& app)
        : Command(app, "trigger", "Trigger the recorders that wait for an event") {
        name("--name", options_.name, "Consumer that records; of a tap, the producer")->required();
        auto* all = app_.add_flag("--all", options_.all, "Every channel and stream of the name");
        all->excludes(channel(options_));
        all->excludes(stream(options_));
        folder(options_.folder);
        common(options_, 2, "2");
    }

    Options options() const override { return options_; }

private:
    Trigger_Command_Options options_;
};

}  // namespace

std::unique_ptr<Command> record_command(CLI::App& app) {
    return std::make_unique<Record_Command>(app);
}

std::unique_ptr<Command> trigger_command(CLI::App& app) {
    return std::make_unique<Trigger_Command>(app);
}

}  // namespace zav_shm::tool
