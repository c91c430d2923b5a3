// SPDX-License-Identifier: Apache-2.0
//
// The only file that includes the command-line library, which takes long to compile. A command's
// options are read as texts where that library's own conversion would be lenient, and checked
// before anything is done.
#include "apps/tool/command_line.h"

#include <CLI/CLI.hpp>

#include <filesystem>
#include <memory>
#include <optional>
#include <sstream>

#include "apps/tool/argument_checks.h"
#include "apps/tool/reading_start.h"
#include "apps/tool/standard_output.h"
#include "control/control_protocol.h"

namespace zav_shm::tool {

namespace {

using std::chrono::milliseconds;

constexpr std::uint64_t count_max = 1'000'000'000'000;
constexpr std::uint64_t history_max = 4'294'967'295;  // bytes
constexpr double pace_seconds_max = 60;
constexpr int file_rate = 25;  // frames per second, when nothing else is said

constexpr const char* statuses =
    "Exit status: 0 ok, 1 frames lost (--strict), left out or damaged, 2 usage, 3 no center,\n"
    "4 refused by the center, 5 input or output error, 6 control queues or shared memory cannot\n"
    "be used, or another process publishes the stream.";

CLI::Validator whole(std::uint64_t least, std::uint64_t greatest) {
    return {[least, greatest](std::string& text) {
                return whole_number_mistake(text, least, greatest);
            },
            ""};
}

CLI::Validator checked_by(std::string (*mistake)(const std::string&)) {
    return {[mistake](std::string& text) { return mistake(text); }, ""};
}

CLI::Validator either(const std::string& one, const std::string& other) {
    return {[one, other](std::string& text) { return choice_mistake(text, one, other); }, ""};
}

/// One command: what it is called, and how its texts become options once all of them are there.
class Command {
public:
    Command(CLI::App& app, const char* name, const char* description)
        : app_(*app.add_subcommand(name, description)) {}
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
    CLI::Option* seconds(const char* name, milliseconds& target, double least,
                         const char* description, double greatest = seconds_max) {
        return app_
            .add_option_function<double>(
                name,
                [&target](double value) {
                    target = std::chrono::ceil<milliseconds>(std::chrono::duration<double>(value));
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
        app_.footer(statuses);
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

    void index(std::string& target) {
        app_.add_option("--index", target,
                        "Also write a line \"stream sequence bytes key\" for each frame; - is "
                        "standard output")
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

    // Who takes frames, from whom, and from where on.
    void consumer(Consumer_Options& options) {
        name_ = name("--name", options.name, "Consumer, as configured in the center");
        name("--pair", options.producer, "Producer whose frames are wanted")->required();
        tap_ = app_.add_flag("--tap", options.tap,
                             "Read without a name, and without a center; instead of --name")
                   ->excludes(name_);
        folder(options.folder)->needs(tap_);
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

private:
    CLI::Option* name_ = nullptr;  // of a consumer
    CLI::Option* tap_ = nullptr;
};

class Publish_Command : public Command {
public:
    explicit Publish_Command(CLI::App& app)
        : Command(app, "publish", "Distribute the frames of a file, of a pipe, or synthetic ones") {
        file_ = app_.add_option("FILE", options_.file,
                                "H.264 or H.265 elementary stream (Annex B); - is standard input")
                    ->type_name("");
        name("--name", options_.name, "Producer, as configured in the center")->required();
        channel(options_);
        stream(options_);
        rate_ = app_.add_option("--fps", rate_text_,
                                "Frames per second, such as 25, 29.97 or 30000/1001; 0: as they "
                                "arrive, or as fast as they are taken [25; for - 0]")
                    ->check(checked_by(rate_mistake))
                    ->type_name("RATE");
        loop_ = app_.add_flag("--loop", options_.loop, "Begin the file again at its end");
        number("--count", options_.count, 1, count_max, "End after so many frames");
        codec_ = app_.add_option("--codec", codec_text_,
                                 "h264, h265, or auto: tell from the stream [auto]")
                     ->check(CLI::Validator(codec_mistake, ""))
                     ->type_name("CODEC");
        limit_ = number("--unit-limit", options_.unit_limit, 1, frame_bytes_max,
                        "Longest access unit in bytes [page size of the stream]");
        number("--width", options_.width, 1, pixels_max, "Picture width [from the stream]");
        number("--height", options_.height, 1, pixels_max, "Picture height [from the stream]");
        synthetic_ = app_.add_flag("--synthetic", options_.synthetic,
                                   "Make frames with a pattern that can be verified");
        number("--size", options_.size, 0, frame_bytes_max, "Bytes of a synthetic frame")
            ->capture_default_str()
            ->needs(synthetic_);
        number("--key-interval", options_.key_interval, 1, 1'000'000,
               "Synthetic frames from one key frame to the next")
            ->capture_default_str()
            ->needs(synthetic_);
        index(options_.index);
        number("--history", options_.history, 1, history_max,
               "Bytes of frames that are kept for readers [as configured]");
        app_.add_flag("--paced", options_.paced,
                      "Wait for readers that are behind [with --fps 0, but not of a pipe]");
        seconds("--pace-limit", options_.pace_limit, 0,
                "How long a reader that stands still is waited for", pace_seconds_max)
            ->default_str("0.2");
        app_.add_option_function<std::string>(
                "--on-key-request",
                [this](const std::string& text) {
                    options_.on_key_request = *parse_key_request_action(text);
                },
                "When a reader asks for a key frame: signal:PID:NAME, such as signal:1234:USR1, or "
                "fd:N, a descriptor that gets the line \"key_frame\"")
            ->check(checked_by(key_request_action_mistake))
            ->type_name("ACTION");
        common(options_, 5, "5");
    }

    std::optional<std::string> finish() override {
        if ((file_->count() != 0) == options_.synthetic) {
            return "publish needs either FILE or --synthetic";
        }
        if (file_->count() != 0 && options_.file.empty()) {
            return "FILE: the name is empty";
        }
        for (const CLI::Option* option : {loop_, codec_, limit_}) {
            if (options_.synthetic && option->count() != 0) {
                return option->get_name() + " does not go with --synthetic";
            }
        }
        if (has_own_index(options_.file, options_.index)) {
            return "--index: '" + options_.index + "' is the file that is published";
        }
        if (options_.loop && options_.file == standard_stream) {
            return "--loop needs a file: standard input cannot begin again";
        }
        if (rate_->count() != 0) {
            options_.rate = *parse_rate(rate_text_);
        } else if (options_.file != standard_stream) {
            options_.rate = {file_rate, 1};
        }
        options_.paced = options_.paced || (!options_.rate.is_paced() && !is_live());
        if (codec_text_ != "auto") {
            options_.codec =
                codec_text_ == "h264" ? media::Video_Codec::h264 : media::Video_Codec::h265;
        }
        return {};
    }

    Options options() const override { return options_; }

private:
    // What comes from a pipe may be a camera's.
    bool is_live() const {
        std::error_code failed;
        return !options_.synthetic && !std::filesystem::is_regular_file(options_.file, failed);
    }

    static std::string codec_mistake(std::string& text) {
        return text == "h264" || text == "h265" || text == "auto"
                   ? std::string()
                   : "'" + text + "' is none of h264, h265 and auto";
    }

    Publish_Options options_;
    std::string rate_text_;
    std::string codec_text_ = "auto";
    CLI::Option* file_;
    CLI::Option* rate_;
    CLI::Option* loop_;
    CLI::Option* codec_;
    CLI::Option* limit_;
    CLI::Option* synthetic_;
};

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
        app_.add_option("-o,--output", options_.file, "File to write; - is standard output")
            ->required()
            ->check(checked_by(file_mistake))
            ->type_name("FILE");
        number("--frames", options_.frames, 1, count_max, "End after so many frames");
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
        index(options_.index);
        common(options_, 5, "5");
    }

    std::optional<std::string> finish() override {
        if (auto mistake = consumer_mistake()) {
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
    Record_Options options_;
    CLI::Option* streams_;
};

class Watch_Command : public Command {
public:
    explicit Watch_Command(CLI::App& app)
        : Command(app, "watch", "Show rate, latency and losses of a stream, once a second") {
        consumer(options_);
        stream(options_);
        number("--count", options_.count, 1, count_max, "End after so many lines");
        app_.add_flag("--verify-synthetic", options_.verify_synthetic,
                      "Check the pattern of publish --synthetic");
        json(options_.json);
        common(options_, 5, "5");
    }

    std::optional<std::string> finish() override { return consumer_mistake(); }
    Options options() const override { return options_; }

private:
    Watch_Options options_;
};

class Status_Command : public Command {
public:
    explicit Status_Command(CLI::App& app)
        : Command(app, "status", "Show what the center's channels do") {
        folder(options_.folder);
        app_.add_flag("--ask-center", options_.ask_center,
                      "Also let the center print its state on its own standard output");
        json(options_.json);
        common(options_, 2, "2");
    }

    Options options() const override { return options_; }

private:
    Status_Options options_;
};

class Names_Command : public Command {
public:
    explicit Names_Command(CLI::App& app)
        : Command(app, "names", "List the producers and consumers that are configured") {
        folder(options_.folder);
        json(options_.json);
        common(options_, 2, "2");
    }

    Options options() const override { return options_; }

private:
    Names_Options options_;
};

class Pair_Command : public Command {
public:
    explicit Pair_Command(CLI::App& app)
        : Command(app, "pair", "Have a consumer fed by another producer") {
        name("--name", options_.name, "Consumer, as configured in the center")->required();
        name("--pair", options_.producer, "Producer that is to feed it")->required();
        auto* all =
            app_.add_flag("--all", options_.all, "Every channel and stream of the consumer");
        all->excludes(channel(options_));
        all->excludes(stream(options_));
        json(options_.json);
        common(options_, 2, "2");
    }

    Options options() const override { return options_; }

private:
    Pair_Options options_;
};

class Kick_Command : public Command {
public:
    explicit Kick_Command(CLI::App& app)
        : Command(app, "kick", "Switch on or off that idle consumers are unpaired") {
        app_.add_option("SETTING", setting_, "on or off")
            ->required()
            ->check(either("on", "off"))
            ->type_name("");
        folder(options_.folder);
        json(options_.json);
        common(options_, 2, "2");
    }

    std::optional<std::string> finish() override {
        options_.enable = setting_ == "on";
        return {};
    }

    Options options() const override { return options_; }

private:
    Kick_Options options_;
    std::string setting_;
};

class Query_Command : public Command {
public:
    explicit Query_Command(CLI::App& app)
        : Command(app, "query", "Show how many channels and streams a name has") {
        app_.add_option("--type", options_.type, "Distributor (producer) or Receiver (consumer)")
            ->required()
            ->check(either(control::type::distributor, control::type::receiver))
            ->type_name("TYPE");
        name("--name", options_.name, "Name, as configured in the center")->required();
        json(options_.json);
        common(options_, 2, "2");
    }

    Options options() const override { return options_; }

private:
    Query_Options options_;
};

std::string one_line(std::string text) {
    for (char& character : text) {
        character = character == '\n' ? ' ' : character;
    }
    return text;
}

Exit_Status usage_error(const CLI::App& app, const std::string& text) {
    const auto given = app.get_subcommands();
    const std::string command = given.empty() ? "" : " " + given.front()->get_name();
    return report(
        {Exit_Status::usage, one_line(text) + "; zav-shm" + command + " --help lists the options"});
}

}  // namespace

std::variant<Options, Exit_Status> read_command_line(int argc, const char* const* argv) {
    CLI::App app("Publishes, records and watches frames of zav_shm, and talks to its center.",
                 "zav-shm");
    app.set_version_flag("--version", "zav-shm " ZAV_SHM_VERSION, "Print the version");
    app.require_subcommand(1);
    app.footer(statuses);
    std::vector<std::unique_ptr<Command>> commands;
    commands.push_back(std::make_unique<Publish_Command>(app));
    commands.push_back(std::make_unique<Record_Command>(app));
    commands.push_back(std::make_unique<Watch_Command>(app));
    commands.push_back(std::make_unique<Status_Command>(app));
    commands.push_back(std::make_unique<Names_Command>(app));
    commands.push_back(std::make_unique<Pair_Command>(app));
    commands.push_back(std::make_unique<Kick_Command>(app));
    commands.push_back(std::make_unique<Query_Command>(app));
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& reason) {
        if (reason.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
            std::ostringstream help_or_version;
            app.exit(reason, help_or_version, help_or_version);
            return write_to(Standard_Output(true), help_or_version.str());
        }
        const bool has_command = argc < 2 || !app.get_subcommands().empty();
        return usage_error(
            app, has_command ? reason.what() : "'" + std::string(argv[1]) + "' is no command");
    }
    for (const auto& command : commands) {
        if (command->was_given()) {
            const auto mistake = command->finish();
            return mistake ? std::variant<Options, Exit_Status>(usage_error(app, *mistake))
                           : command->options();
        }
    }
    return usage_error(app, "a command is needed");
}

}  // namespace zav_shm::tool
