// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/record_command.h"

#include <vector>

#include "apps/tool/series_command.h"

namespace zav_shm::tool {

namespace {

class Record_Command : public Series_Command {
public:
    explicit Record_Command(CLI::App& app)
        : Series_Command(
              *app.add_subcommand("record", "Write a stream's frames to a file or pipe")) {
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
        series(options_);
        index_each();
        events(options_);
        trigger_->excludes(streams_);
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
        if (auto mistake = event_mistake(options_, {frames_, from_})) {
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
    void index_each() {
        app_.add_flag("--index-each", options_.index_each,
                      "Beside each file an index, NAME.index; see --index")
            ->needs(directory_);
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

    Record_Options options_;
    CLI::Option* streams_;
    CLI::Option* file_;
    CLI::Option* frames_;
    CLI::Option* index_;
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
