// SPDX-License-Identifier: Apache-2.0
//
// The command lines of `capture`, `replay` and `trace`.
#include "apps/tool/trace_commands.h"

namespace zav_shm::tool {

namespace {

constexpr double speed_max = 1000;

// NAME, NAME/CHANNEL or NAME/CHANNEL/STREAM
std::vector<std::string> split_at_slashes(const std::string& text) {
    std::vector<std::string> fields(1);
    for (const char character : text) {
        if (character == '/') {
            fields.emplace_back();
        } else {
            fields.back() += character;
        }
    }
    return fields;
}

std::string tap_mistake(const std::string& text) {
    const auto fields = split_at_slashes(text);
    if (fields.size() > 3) {
        return "'" + text + "' is not NAME, NAME/CHANNEL or NAME/CHANNEL/STREAM";
    }
    std::string mistake = name_mistake(fields[0]);
    for (std::size_t i = 1; i < fields.size() && mistake.empty(); ++i) {
        const auto greatest = static_cast<std::uint64_t>(i == 1 ? channel_max : stream_max);
        mistake = whole_number_mistake(fields[i], 0, greatest);
        mistake = mistake.empty() ? mistake : "'" + text + "': " + mistake;
    }
    return mistake;
}

// NEW, or OLD=NEW
Replay_Options::Name parse_renaming(const std::string& text) {
    const std::size_t sign = text.find('=');
    return sign == std::string::npos
               ? Replay_Options::Name{{}, text}
               : Replay_Options::Name{text.substr(0, sign), text.substr(sign + 1)};
}

std::string renaming_mistake(const std::string& text) {
    const auto [from, to] = parse_renaming(text);
    const std::string mistake = text.find('=') == std::string::npos ? "" : name_mistake(from);
    return mistake.empty() ? name_mistake(to) : mistake;
}

class Capture_Command : public Command {
public:
    explicit Capture_Command(CLI::App& app)
        : Command(app, "capture", "Keep the traffic of streams in a trace") {
        app_.add_option("--tap", taps_,
                        "Stream to capture, read without a center; give it once for each")
            ->check(checked_by(tap_mistake))
            ->expected(1)
            ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
            ->type_name("NAME[/CHANNEL[/STREAM]]");
        name_ = name("--name", one_.name,
                     "Consumer, as configured in the center, to capture one stream instead");
        pair_ = name("--pair", one_.producer, "Producer whose frames are wanted")->needs(name_);
        name_->needs(pair_);
        channel(one_)->needs(name_);
        stream(one_)->needs(name_);
        folder(one_.folder);
        app_.add_option_function<std::string>(
                "--from", [this](const std::string& text) { one_.from = *parse_start(text); },
                "Where to begin, as of record [newest-key]")
            ->check(checked_by(start_mistake))
            ->type_name("START");
        app_.add_option("-o,--output", options_.file, "Trace to write; - is standard output")
            ->required()
            ->check(checked_by(file_mistake))
            ->type_name("FILE");
        number("--frames", options_.frames, 1, count_max, "End after so many frames");
        seconds("--duration", options_.duration, 0.001, "End after so long");
        app_.add_flag("--sync", options_.sync, "Write down to the medium before the end");
        app_.add_flag("--strict", options_.strict,
                      "Exit with 1 when a frame was lost, or none came");
        common(options_, 5, "5");
    }

    std::optional<std::string> finish() override {
        if (taps_.empty() == (name_->count() == 0)) {
            return "capture needs either --tap or --name and --pair";
        }
        if (taps_.empty()) {
            options_.streams = {one_};
            return {};
        }
        for (const std::string& tap : taps_) {
            const auto fields = split_at_slashes(tap);
            Consumer_Options stream = one_;
            stream.tap = true;
            stream.producer = fields[0];
            stream.channel = fields.size() > 1 ? std::stoi(fields[1]) : 0;
            stream.stream = fields.size() > 2 ? std::stoi(fields[2]) : 0;
            for (const Consumer_Options& other : options_.streams) {
                if (stream.producer == other.producer && stream.channel == other.channel &&
                    stream.stream == other.stream) {
                    return "--tap: '" + tap + "' is there twice";
                }
            }
            options_.streams.push_back(stream);
        }
        constexpr std::size_t taps_max = 64;
        return options_.streams.size() > taps_max
                   ? std::optional("--tap: " + std::to_string(options_.streams.size()) +
                                   " streams; the limit is " + std::to_string(taps_max))
                   : std::nullopt;
    }

    Options options() const override { return options_; }

private:
    Capture_Options options_;
    std::vector<std::string> taps_;
    Consumer_Options one_;
    CLI::Option* name_;
    CLI::Option* pair_;
};

class Replay_Command : public Command {
public:
    explicit Replay_Command(CLI::App& app)
        : Command(app, "replay", "Publish the frames of a trace, at the times they had") {
        app_.add_option("FILE", options_.file, "Trace")
            ->required()
            ->check(checked_by(file_mistake))
            ->type_name("");
        app_.add_option("--name", names_,
                        "Producer to publish as: NEW for all streams, OLD=NEW for those of one "
                        "producer; give it once for each [as captured]")
            ->check(checked_by(renaming_mistake))
            ->expected(1)
            ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
            ->type_name("[OLD=]NEW");
        app_.add_option("--speed", options_.speed,
                        "So many times as fast; 0: as fast as readers take them")
            ->check(CLI::Validator(
                [](std::string& text) { return number_mistake(text, 0, speed_max); }, ""))
            ->type_name("N")
            ->capture_default_str();
        seconds("--from", options_.from, 0,
                "Begin so many seconds behind the trace's begin, each stream with its key frame "
                "before");
        app_.add_flag("--loop", options_.loop, "Begin the trace again at its end");
        number("--count", options_.count, 1, count_max, "End after so many frames");
        producer(options_,
                 "Bytes of frames that are kept for readers, of each stream [as configured]",
                 "with --speed 0");
        common(options_, 5, "5");
    }

    std::optional<std::string> finish() override {
        for (const std::string& name : names_) {
            const auto renaming = parse_renaming(name);
            for (const auto& other : options_.names) {
                if (other.from == renaming.from) {
                    return "--name: '" + name + "' and '" + names_[0] +
                           "' are for the same streams";
                }
            }
            options_.names.push_back(renaming);
        }
        options_.paced = options_.paced || options_.speed <= 0;
        return {};
    }

    Options options() const override { return options_; }

private:
    Replay_Options options_;
    std::vector<std::string> names_;
};

class Trace_Command : public Command {
public:
    explicit Trace_Command(CLI::App& app)
        : Command(app, "trace", "Check a trace, and show or compare what is in it") {
        app_.add_option("FILE", options_.file, "Trace")
            ->required()
            ->check(checked_by(file_mistake))
            ->type_name("");
        auto* list = app_.add_flag("--list", options_.list, "A line for each record");
        app_.add_option("--compare", options_.other,
                        "Tell whether this trace holds the same traffic, or the first difference")
            ->check(checked_by(file_mistake))
            ->type_name("FILE")
            ->excludes(list);
        json(options_.json);
        app_.footer(exit_statuses);
    }

    Options options() const override { return options_; }

private:
    Trace_Options options_;
};

}  // namespace

void add_trace_commands(CLI::App& app, Commands& commands) {
    commands.push_back(std::make_unique<Capture_Command>(app));
    commands.push_back(std::make_unique<Replay_Command>(app));
    commands.push_back(std::make_unique<Trace_Command>(app));
}

}  // namespace zav_shm::tool
