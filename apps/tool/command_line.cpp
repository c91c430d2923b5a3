// SPDX-License-Identifier: Apache-2.0
//
// The commands and their options; those of `record` and of traces have files of their own.
#include "apps/tool/command_line.h"

#include <filesystem>
#include <memory>
#include <optional>
#include <sstream>

#include "apps/tool/argument_checks.h"
#include "apps/tool/command.h"
#include "apps/tool/doctor_command.h"
#include "apps/tool/record_command.h"
#include "apps/tool/standard_output.h"
#include "apps/tool/trace_commands.h"
#include "control/control_protocol.h"

namespace zav_shm::tool {

namespace {

constexpr int file_rate = 25;  // frames per second, when nothing else is said

class Publish_Command : public Command {
public:
    explicit Publish_Command(CLI::App& app)
        : Command(app, "publish", "Distribute the frames of a file, of a pipe, or synthetic ones") {
        file_ = app_.add_option("FILE", options_.file,
                                "H.264 or H.265 elementary stream (Annex B), AAC (ADTS) or Opus "
                                "(Ogg); - is standard input")
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
                                 "h264, h265, aac, opus, or auto: tell from the stream [auto]")
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
        index(
            options_.index,
            "Also write a line \"stream sequence bytes key\" for each frame; - is standard output");
        producer(options_, "Bytes of frames that are kept for readers [as configured]",
                 "with --fps 0, but not of a pipe");
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
        options_.has_rate = rate_->count() != 0;
        if (options_.has_rate) {
            options_.rate = *parse_rate(rate_text_);
        } else if (options_.file != standard_stream) {
            options_.rate = {file_rate, 1};
        }
        options_.paced = options_.paced || (!options_.rate.is_paced() && !is_live());
        options_.codec = parse_input_codec(codec_text_);
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
        return text == "auto" || parse_input_codec(text)
                   ? std::string()
                   : "'" + text + "' is none of h264, h265, aac, opus and auto";
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

class Watch_Command : public Command {
public:
    explicit Watch_Command(CLI::App& app)
        : Command(app, "watch", "Show rate, latency and losses of a stream, once a second") {
        consumer(options_);
        folder_->needs(tap_);
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

class Top_Command : public Command {
public:
    explicit Top_Command(CLI::App& app)
        : Command(app, "top", "Show all streams and who takes their frames, live") {
        seconds("--interval", options_.interval, 0.1, "Between two pictures", 3600)
            ->default_str("1");
        app_.add_option("--sort", order_,
                        "What streams and consumers are ordered by: name, rate, bits, age, behind "
                        "or lost [name]")
            ->check(CLI::Validator(order_mistake, ""))
            ->type_name("KEY");
        name("--producer", options_.producer, "Streams of this one alone");
        app_.add_flag("--once", options_.once, "Write one table, after one interval, and end");
        app_.add_flag("--no-colour,--no-color", options_.no_colour,
                      "No colours; so does NO_COLOR in the environment");
        folder(options_.folder);
        json(options_.json);
        app_.footer(exit_statuses);
    }

    std::optional<std::string> finish() override {
        options_.order = top_order_named(order_).value_or(Top_Order::name);
        return {};
    }
    Options options() const override { return options_; }

private:
    static std::string order_mistake(const std::string& text) {
        return top_order_named(text)
                   ? ""
                   : "'" + text + "' is none of name, rate, bits, age, behind and lost";
    }

    Top_Options options_;
    std::string order_ = "name";
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
    app.footer(exit_statuses);
    Commands commands;
    commands.push_back(std::make_unique<Publish_Command>(app));
    commands.push_back(record_command(app));
    commands.push_back(std::make_unique<Watch_Command>(app));
    commands.push_back(std::make_unique<Top_Command>(app));
    commands.push_back(std::make_unique<Status_Command>(app));
    commands.push_back(std::make_unique<Names_Command>(app));
    commands.push_back(std::make_unique<Pair_Command>(app));
    commands.push_back(std::make_unique<Kick_Command>(app));
    commands.push_back(std::make_unique<Query_Command>(app));
    commands.push_back(trigger_command(app));
    add_trace_commands(app, commands);
    commands.push_back(doctor_command(app));
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
