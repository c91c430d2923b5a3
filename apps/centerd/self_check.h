// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <chrono>
#include <ctime>
#include <string>

#include "apps/centerd/control_queues.h"

namespace zav_shm::centerd {

/// Finds out whether the center answers: asks it something through its queues, as a client of the
/// daemon's own process id, and never waits for room in them.
///
/// When a queue is nearly full it sends nothing, since a question would take a client's place, and
/// its reply might be one too many for the center to send. The center then counts as answering
/// while it takes requests.
///
/// Threads  one.
class Self_Check {
public:
    /// @param queues  outlives this.
    explicit Self_Check(const Control_Queues& queues);

    /// Takes the answer to the former question if that is still under way, and else asks and gives
    /// the center 20 ms. At most one question waits in the queue.
    ///
    /// @return true when the center has shown since the last step that it answers.
    bool step();

    /// Repeats the step until the center answers or `limit` is over.
    bool answers_within(std::chrono::milliseconds limit);

    /// Takes what came too late off the reply queue.
    void forget() { take_answers(); }

private:
    bool take_answers() const;
    bool answer_comes() const;
    bool ask() const;
    bool may_ask() const;
    bool is_question_taken() const;
    bool has_taken_requests();

    const Control_Queues& queues_;
    const pid_t pid_;
    const std::string question_;
    bool asked_ = false;
    time_t taken_at_ = 0;  // when the center took a request, last time that somebody looked
};

}  // namespace zav_shm::centerd
