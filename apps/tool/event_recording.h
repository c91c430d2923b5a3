// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "apps/tool/event_history.h"
#include "apps/tool/file_series.h"
#include "apps/tool/frame_input.h"
#include "apps/tool/gap_finder.h"
#include "apps/tool/options.h"
#include "apps/tool/recording_account.h"
#include "apps/tool/stop_signal.h"
#include "apps/tool/trigger_source.h"

namespace zav_shm::tool {

/// One run of `zav-shm record --trigger`: waits, and writes a file for each event, from the last
/// key frame that is at least `before` older than the trigger until `after` behind the last
/// trigger.
///
/// Between events nothing is kept here: the stream's own history holds what a trigger will want,
/// and the trigger moves the reader back in it. Once a second the newest key frame is read, so that
/// a successor's history is found and the state is true.
///
/// An event ends before a key frame: the first one that is not earlier than its end. So each file
/// can be decoded by itself, and an event whose beginning reaches back into the former file goes on
/// where that one ended, with nothing missing and nothing twice.
class Event_Recording {
public:
    /// @param form  of the files
    Event_Recording(const Record_Options& options, std::unique_ptr<Series_Form> form,
                    int standard_output, const Stop_Signal& stop);

    std::optional<Problem> open();
    void run();

    /// Ends an event that is on, with what was published up to now.
    ///
    /// @return what became of events that could not be written
    std::optional<Problem> close();

    Exit_Status tell() const;

private:
    // Which frame of its stream.
    struct Position {
        std::uint64_t epoch = 0;
        std::uint64_t sequence = 0;
    };

    struct Event {
        std::int64_t last_trigger_ns = 0;
        std::uint64_t triggers = 1;
        Event_History history;
        std::uint64_t frames_before;  // in all files, before this event
        std::uint64_t files_before;
        bool has_entry_points = false;
        bool goes_on = false;  // where the former one ended
        bool told_history = false;
        std::optional<Position> last;                                      // frame that was written
        std::int64_t last_ns = 0;                                          // moment of it
        Stop_Signal::Clock::time_point heard = Stop_Signal::Clock::now();  // the last frame
    };

    bool is_over() const;
    void rest();
    void follow_stream();
    void note_triggers(std::uint64_t count);
    void begin_event();
    void go_on();
    void take(const Received_Frame& frame);
    bool is_in_former_file(const Received_Frame& frame) const;
    bool is_behind_end(const Received_Frame& frame) const;
    void tell_history();
    std::string files_text() const;
    void end_event(bool next_can_go_on);
    std::int64_t end_ns() const { return event_->last_trigger_ns + options_.after.count(); }
    std::string event_title() const { return "event " + std::to_string(events_); }

    const Record_Options& options_;
    const Stop_Signal& stop_;
    Trigger_Source triggers_;
    File_Series files_;
    Frame_Input input_;
    Gap_Finder gap_finder_;
    Recording_Account account_;
    Received_Frame frame_;
    Stop_Signal::Clock::time_point begin_;
    Stop_Signal::Clock::time_point next_look_;
    std::optional<Event> event_;
    std::optional<Position>
        former_end_;  // last frame of the former file if that ended as it should
    std::uint64_t events_ = 0;
    std::uint64_t failed_events_ = 0;
};

}  // namespace zav_shm::tool
