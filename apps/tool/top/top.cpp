// SPDX-License-Identifier: Apache-2.0
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "apps/tool/caught_signals.h"
#include "apps/tool/commands.h"
#include "apps/tool/json_text.h"
#include "apps/tool/stop_signal.h"
#include "apps/tool/top/short_figures.h"
#include "apps/tool/top/terminal_screen.h"
#include "apps/tool/top/top_keys.h"
#include "apps/tool/top/top_view.h"
#include "apps/watch/collector.h"
#include "apps/watch/snapshot_json.h"

namespace zav_shm::tool {

namespace {

using Clock = Stop_Signal::Clock;

constexpr std::size_t table_width = 100;  // where there is no screen

bool is_set(const char* variable) {
    const char* const value = std::getenv(variable);
    return value != nullptr && *value != '\0';
}

// "1 s", "0.25 s"
std::string seconds_text(std::chrono::milliseconds time) {
    std::string text = short_number(std::chrono::duration<double>(time).count(), 3, 8);
    text.erase(text.find_last_not_of('0') + 1);
    text.erase(text.find_last_not_of('.') + 1);
    return text + " s";
}

// A terminal that cannot be painted on gets tables one below the other.
bool is_dumb() {
    const char* const terminal = std::getenv("TERM");
    return terminal == nullptr || *terminal == '\0' || std::strcmp(terminal, "dumb") == 0;
}

Json::Value of_producer(const watch::Snapshot& snapshot, const std::string& producer) {
    if (producer.empty()) {
        return watch::json_of(snapshot);
    }
    watch::Snapshot chosen = snapshot;
    std::erase_if(chosen.streams, [&producer](const watch::Stream& stream) {
        return stream.id.producer != producer;
    });
    std::erase_if(chosen.elsewhere, [&producer](const watch::Consumer& consumer) {
        return consumer.of.producer != producer;
    });
    return watch::json_of(chosen);
}

class Top {
public:
    Top(const Top_Options& options, const Standard_Output& output)
        : options_(options),
          output_(output),
          quits_({SIGQUIT}),
          changes_({SIGWINCH, SIGCONT}),
          suspends_({SIGTSTP}),
          collector_(options.folder) {
        view_.order = options.order;
        view_.producer = options.producer;
        view_.every = seconds_text(options.interval);
        view_.has_colours =
            output.is_terminal() && !options.no_colour && !is_set("NO_COLOR") && !is_dumb();
        view_.width = table_width;
        if (output.is_terminal()) {
            view_.width = screen_size(output.descriptor()).width;
        }
    }

    Exit_Status run() {
        const bool is_screen =
            output_.is_terminal() && !options_.once && !options_.json && !is_dumb();
        return is_screen ? run_on_screen() : run_in_lines();
    }

private:
    // The first snapshot has no rates, and is not shown.
    Exit_Status run_in_lines() {
        collector_.look();
        Clock::time_point next = Clock::now() + options_.interval;
        for (bool is_first = true;; is_first = false) {
            if (stop_.wait_until(next)) {
                return Exit_Status::ok;
            }
            const watch::Snapshot snapshot = collector_.look();
            const std::string text =
                options_.json ? json_line(of_producer(snapshot, options_.producer)) + "\n"
                              : (is_first ? "" : "\n") + table_of(snapshot, view_);
            const Exit_Status written = write_to(output_, text);
            if (options_.once || written != Exit_Status::ok) {
                return written;
            }
            next = std::max(next + options_.interval, Clock::now());
        }
    }

    Exit_Status run_on_screen() {
        Terminal_Screen screen(output_.descriptor(), STDIN_FILENO);
        Clock::time_point next = Clock::now();
        while (!quits_.take() && !stop_.requested()) {
            if (Clock::now() >= next) {
                next = std::max(next + options_.interval, Clock::now());
                const watch::Snapshot snapshot = collector_.look();
                if (!view_.is_frozen) {
                    snapshot_ = snapshot;
                }
            }
            if (!paint(screen)) {
                const int error = errno;
                screen.leave();
                return report({Exit_Status::input_output, "cannot write to the terminal: " +
                                                              std::string(std::strerror(error))});
            }
            wait(screen, next);
            if (!act_on_keys(screen)) {
                break;
            }
            act_on_signals(screen);
        }
        return Exit_Status::ok;
    }

    bool paint(Terminal_Screen& screen) {
        const Screen_Size size = screen_size(output_.descriptor());
        if (size.width != view_.width || size.height != view_.height) {
            screen.forget();
        }
        view_.width = size.width;
        view_.height = size.height;
        return screen.show(screen_of(snapshot_, view_));
    }

    void wait(const Terminal_Screen& screen, Clock::time_point next) const {
        pollfd waited[] = {{stop_.descriptor(), POLLIN, 0},
                           {quits_.descriptor(), POLLIN, 0},
                           {changes_.descriptor(), POLLIN, 0},
                           {suspends_.descriptor(), POLLIN, 0},
                           {screen.key_descriptor(), POLLIN, 0}};
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
        poll(waited, std::size(waited),
             static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 60'000)));
    }

    // @return false at the end.
    bool act_on_keys(Terminal_Screen& screen) {
        if (screen.key_descriptor() < 0) {
            return true;
        }
        pollfd input{screen.key_descriptor(), POLLIN, 0};
        const bool is_there = poll(&input, 1, 0) > 0;
        const auto typed = screen.typed();
        if (!typed || (is_there && typed->empty())) {
            return false;  // the terminal is gone
        }
        for (const Top_Key key : keys_in(*typed)) {
            if (key == Top_Key::quit) {
                return false;
            }
            if (key == Top_Key::suspend) {
                suspend(screen);
            }
            if (key == Top_Key::repaint) {
                screen.forget();
            }
            act_on(key, streams_of(snapshot_, view_), view_);
        }
        return true;
    }

    void act_on_signals(Terminal_Screen& screen) {
        if (suspends_.take() != 0) {
            suspend(screen);
        }
        if (changes_.take() != 0) {
            screen.forget();
        }
    }

    // The shell gets its terminal back until it has this go on.
    static void suspend(Terminal_Screen& screen) {
        screen.leave();
        std::raise(SIGSTOP);
        screen.enter();
    }

    const Top_Options& options_;
    const Standard_Output& output_;
    const Stop_Signal stop_;
    const Caught_Signals quits_;
    const Caught_Signals changes_;  // of the screen
    const Caught_Signals suspends_;
    watch::Collector collector_;
    watch::Snapshot snapshot_;  // that is shown
    Top_View view_;
};

}  // namespace

Exit_Status run(const Top_Options& options, const Standard_Output& output) {
    return Top(options, output).run();
}

}  // namespace zav_shm::tool
