// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <deque>
#include <memory>
#include <optional>
#include <vector>

#include "apps/tool/frame_input.h"
#include "apps/tool/options.h"
#include "apps/tool/output_file.h"
#include "apps/tool/stop_signal.h"
#include "apps/trace/trace_writer.h"
#include "ipc/descriptor.h"

namespace zav_shm::tool {

/// One run of `zav-shm capture`: the frames of several streams, and what was missed of them, into
/// one trace, and an account of all.
class Traffic_Capture {
public:
    Traffic_Capture(const Capture_Options& options, int standard_output, const Stop_Signal& stop);

    std::optional<Problem> open();

    /// Captures until a signal comes, a limit of the options is reached, or the file takes no more.
    void run();

    /// Takes what was published before, ends the trace and closes the file. One that takes no more
    /// is cut behind its last whole record.
    std::optional<Problem> close();

    /// The account, on standard error, and what it means for the exit status.
    Exit_Status tell() const;

private:
    // A record on its way into the file.
    struct Record {
        std::uint64_t end = 0;  // offset behind it
        bool is_frame = false;
        bool is_key_frame = false;
        std::uint64_t payload_bytes = 0;
    };

    bool is_over() const;
    bool take_some(std::size_t stream, std::int64_t published_until_ns);
    void write(std::size_t stream);
    void tell_gap(std::size_t stream);
    void wait();
    void settle(bool written);
    Problem write_problem() const;

    const Capture_Options& options_;
    const Stop_Signal& stop_;
    std::vector<std::unique_ptr<Frame_Input>> inputs_;
    Descriptor ready_;           // epoll: readable while a stream may have a frame
    bool has_all_ready_ = true;  // every stream is in there
    Output_File file_;
    trace::Trace_Writer writer_;
    Received_Frame frame_;
    Stop_Signal::Clock::time_point begin_;
    std::optional<int> write_error_;  // errno of the first write that failed

    std::deque<Record> pending_;     // handed to the file, and not yet whole there
    std::uint64_t whole_bytes_ = 0;  // of the file: behind its last whole record

    // Of what is whole in the file.
    std::uint64_t frames_ = 0;
    std::uint64_t payload_bytes_ = 0;
    std::uint64_t key_frames_ = 0;

    std::uint64_t gaps_ = 0;
};

}  // namespace zav_shm::tool
