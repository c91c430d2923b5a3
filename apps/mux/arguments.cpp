// SPDX-License-Identifier: Apache-2.0
#include "apps/mux/arguments.h"

#include <sstream>
#include <string>
#include <vector>

#include "apps/tool/series_command.h"
#include "apps/tool/standard_output.h"

namespace zav_shm::mux {

namespace {

using tool::Consumer_Options;
using tool::Exit_Status;

/// NAME, NAME/CHANNEL or NAME/CHANNEL/STREAM.
std::optional<Consumer_Options> parse_stream(const std::string& text) {
    std::vector<std::string> parts(1);
    for (const char character : text) {
        if (character == '/') {
            parts.emplace_back();
        } else {
            parts.back() += character;
        }
    }
    Consumer_Options stream;
    stream.tap = true;
    stream.producer = parts[0];
    if (parts.size() > 3 || !tool::name_mistake(parts[0]).empty()) {
        return {};
    }
    for (std::size_t i = 1; i < parts.size(); ++i) {
        if (!tool::whole_number_mistake(parts[i], 0, tool::channel_max).empty()) {
            return {};
        }
        (i == 1 ? stream.channel : stream.stream) = std::stoi(parts[i]);
    }
    return stream;
}

std::string stream_mistake(const std::string& text) {
    return parse_stream(text) ? ""
                              : "'" + text +
                                    "' is no stream: NAME, NAME/CHANNEL or "
                                    "NAME/CHANNEL/STREAM, such as CAM_LOOP/0/1";
}

class Mux_Command : public tool::Series_Command {
public:
    explicit Mux_Command(CLI::App& app) : Series_Command(app) {
        consumer(options_.record);
        stream(options_.record);
        app_.add_option_function<std::string>(
                "--audio",
                [this](const std::string& text) { options_.sounds = parse_stream(text); },
                "Producer's stream of sounds, such as CAM_LOOP/0/1: AAC, Opus, or with mkv G.711")
            ->check(tool::checked_by(stream_mistake))
            ->type_name("NAME[/CHANNEL[/STREAM]]");
        app_.add_option_function<std::string>(
                "--format",
                [this](const std::string& text) {
                    options_.container = text == "mkv" ? Container::matroska : Container::mp4;
                },
                "mp4 (fragmented) or mkv (Matroska) [mp4]")
            ->check(tool::either("mp4", "mkv"))
            ->type_name("FORMAT");
        series(options_.record);
        directory_->required();
        events(options_.record);
        frames_ = number("--frames", options_.record.frames, 1, tool::count_max,
                         "End after so many pictures");
        seconds("--duration", options_.record.duration, 0.001, "End after so long");
        app_.add_flag("--ask-for-key-frame", options_.record.ask_for_key_frame,
                      "Ask the producer for a key frame where one is waited for");
        app_.add_flag("--sync", options_.record.sync, "Write down to the medium before the end");
        app_.add_flag("--strict", options_.record.strict,
                      "Exit with 1 when a picture was lost, dropped or torn, the recording has a "
                      "gap, or none came");
        common(options_.record, 5, "5");
    }

    std::optional<std::string> finish() override {
        if (auto mistake = consumer_mistake()) {
            return mistake;
        }
        if (auto mistake = event_mistake(options_.record, {frames_, from_})) {
            return mistake;
        }
        options_.record.streams = {options_.record.stream};
        if (options_.sounds) {
            options_.sounds->folder = options_.record.folder;
        }
        return {};
    }

    tool::Options options() const override { return options_.record; }
    const Options& all() const { return options_; }

private:
    Options options_;
    CLI::Option* frames_;
};

Exit_Status usage_error(const std::string& text) {
    std::string line = text;
    for (char& character : line) {
        character = character == '\n' ? ' ' : character;
    }
    return tool::report({Exit_Status::usage, line + "; zav-shm-mux --help lists the options"});
}

}  // namespace

std::variant<Options, Exit_Status> read_arguments(int argc, const char* const* argv) {
    CLI::App app("Writes a stream of zav_shm, with sound, into MP4 or Matroska files.",
                 "zav-shm-mux");
    app.set_version_flag("--version", "zav-shm-mux " ZAV_SHM_VERSION, "Print the version");
    Mux_Command command(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& reason) {
        if (reason.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
            std::ostringstream help_or_version;
            app.exit(reason, help_or_version, help_or_version);
            return write_to(tool::Standard_Output(true), help_or_version.str());
        }
        return usage_error(reason.what());
    }
    if (const auto mistake = command.finish()) {
        return usage_error(*mistake);
    }
    return command.all();
}

}  // namespace zav_shm::mux
