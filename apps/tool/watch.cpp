// SPDX-License-Identifier: Apache-2.0
#include <cerrno>
#include <optional>
#include <span>

#include "apps/tool/commands.h"
#include "apps/tool/frame_input.h"
#include "apps/tool/output_file.h"
#include "apps/tool/stop_signal.h"
#include "apps/tool/synthetic_pattern.h"
#include "apps/tool/watch_line.h"
#include "ipc/monotonic_clock.h"

namespace zav_shm::tool {

namespace {

using Clock = Stop_Signal::Clock;
using std::chrono::milliseconds;

constexpr std::chrono::seconds line_every{1};
constexpr milliseconds look_max{1000};

class Watch {
public:
    Watch(const Watch_Options& options, const Standard_Output& output)
        : options_(options),
          rewrites_(!options.json && output.is_terminal()),
          output_(standard_stream, output.descriptor(), stop_),
          input_(options, options, {options.stream}, {}, stop_) {}

    std::optional<Problem> open() {
        auto problem = output_.open();
        return problem ? problem : input_.open();
    }

    Exit_Status run() {
        Clock::time_point line_begin = Clock::now();
        Subscriber_Counters before = input_.counters();
        for (std::uint64_t lines = 0; options_.count == 0 || lines < options_.count; ++lines) {
            const Clock::time_point line_end = line_begin + line_every;
            if (!take_until(line_end)) {
                break;
            }
            const Clock::time_point now = Clock::now();
            const Subscriber_Counters counters = input_.counters();
            Watch_Sample sample =
                sample_of(before, counters, now - line_begin, monotonic_ns(), input_.state());
            sample.damaged_total = damaged_;
            if (recovery_point_ns_) {
                sample.recovery_point_age_s =
                    static_cast<double>(monotonic_ns() - *recovery_point_ns_) / 1e9;
            }
            if (const Exit_Status status = write(sample); status != Exit_Status::ok) {
                return status;
            }
            before = counters;
            line_begin = now - line_end > line_every ? now : line_end;
        }
        if (rewrites_) {
            write("\n");
        }
        return damaged_ == 0 ? Exit_Status::ok : Exit_Status::incomplete;
    }

private:
    // @return false when a signal came.
    bool take_until(Clock::time_point end) {
        for (;;) {
            if (stop_.requested()) {
                return false;
            }
            const auto left = std::chrono::ceil<milliseconds>(end - Clock::now());
            if (left <= milliseconds(0)) {
                return true;
            }
            if (input_.receive(frame_, std::min(left, look_max)) == Receive_Status::frame) {
                const bool damaged = options_.verify_synthetic &&
                                     !is_synthetic(frame_.payload(), frame_.header.sequence);
                damaged_ += damaged ? 1U : 0U;
                if (frame_.is_recovery_point()) {
                    recovery_point_ns_ = frame_.received_ns;
                }
            }
        }
    }

    Exit_Status write(const Watch_Sample& sample) {
        if (options_.json) {
            return write(json_of(sample) + "\n");
        }
        return write(rewrites_ ? "\r" + text_of(sample) + "\x1b[K" : text_of(sample) + "\n");
    }

    Exit_Status write(const std::string& text) {
        if (output_.write(std::as_bytes(std::span(text))) && output_.flush()) {
            return Exit_Status::ok;
        }
        return report({Exit_Status::input_output,
                       "cannot write to " + output_.title() + ": " + Output_File::cause(errno)});
    }

    const Watch_Options& options_;
    const bool rewrites_;
    const Stop_Signal stop_;
    Output_File output_;
    Frame_Input input_;
    Received_Frame frame_;
    std::uint64_t damaged_ = 0;
    std::optional<std::int64_t> recovery_point_ns_;  // when the last one came
};

}  // namespace

Exit_Status run(const Watch_Options& options, const Standard_Output& output) {
    Watch watch(options, output);
    if (const auto problem = watch.open()) {
        return report(*problem);
    }
    return watch.run();
}

}  // namespace zav_shm::tool
