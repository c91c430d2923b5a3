// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "apps/media/access_unit_splitter.h"
#include "apps/tool/problem.h"
#include "apps/tool/stop_signal.h"

namespace zav_shm::tool {

/// The access units of an H.264 or H.265 elementary stream from a file or from standard input.
class Elementary_Source {
public:
    /// Takes an access unit; false when no more of them are wanted.
    using Receiver = std::function<bool(const media::Access_Unit&)>;

    /// @param file  "-" is standard input.
    /// @param codec  nothing: tell it from the stream.
    Elementary_Source(std::string file, std::optional<media::Video_Codec> codec);
    ~Elementary_Source();
    Elementary_Source(const Elementary_Source&) = delete;
    Elementary_Source& operator=(const Elementary_Source&) = delete;

    /// Opens the file, waiting for the writer of a named pipe, and reads far enough to know what it
    /// holds.
    ///
    /// @param again  run() is to loop, which not every file can.
    std::optional<Problem> open(bool again, const Stop_Signal& stop);

    /// Known after open().
    media::Video_Codec codec() const { return *codec_; }

    /// Hands out the access units up to the end, and again from the beginning with `loop`. Ends
    /// early at a signal.
    ///
    /// @param limit_bytes  see Access_Unit_Splitter.
    std::optional<Problem> run(std::size_t limit_bytes, bool loop, const Stop_Signal& stop,
                               const Receiver& receiver);

    /// As messages name it.
    const std::string& title() const { return title_; }

private:
    enum class Read { some, end, stopped, failed };

    Read read_block(const Stop_Signal& stop);
    std::optional<Problem> recognise(bool at_end);
    Problem no_beginning() const;
    Problem no_picture() const;
    Problem input_problem(const std::string& text) const;
    Problem read_problem() const;

    const std::string file_;
    const std::string title_;
    const std::optional<media::Video_Codec> wanted_codec_;
    std::optional<media::Video_Codec> codec_;
    int descriptor_ = -1;
    std::vector<std::byte> beginning_;  // what open() read
    std::vector<std::byte> block_;      // what read_block() read last
};

}  // namespace zav_shm::tool
