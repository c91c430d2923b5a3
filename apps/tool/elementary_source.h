// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "apps/audio/audio_splitter.h"
#include "apps/media/access_unit_splitter.h"
#include "apps/tool/input_codec.h"
#include "apps/tool/problem.h"
#include "apps/tool/stop_signal.h"

namespace zav_shm::tool {

/// The frames of an elementary stream from a file or from standard input: access units of H.264 or
/// H.265, frames of AAC with ADTS headers, or packets of Opus in Ogg.
class Elementary_Source {
public:
    /// Takes an access unit; false when no more of them are wanted.
    using Receiver = std::function<bool(const media::Access_Unit&)>;

    /// @param file  "-" is standard input.
    /// @param codec  nothing: tell it from the stream.
    Elementary_Source(std::string file, std::optional<Input_Codec> codec);
    ~Elementary_Source();
    Elementary_Source(const Elementary_Source&) = delete;
    Elementary_Source& operator=(const Elementary_Source&) = delete;

    /// Opens the file, waiting for the writer of a named pipe, and reads far enough to know what it
    /// holds.
    ///
    /// @param again  run() is to loop, which not every file can.
    std::optional<Problem> open(bool again, const Stop_Signal& stop);

    /// Known after open().
    Input_Codec codec() const { return *codec_; }

    /// Of pictures: hands out the access units up to the end, and again from the beginning with
    /// `loop`. Ends early at a signal.
    ///
    /// @param limit_bytes  see Access_Unit_Splitter.
    std::optional<Problem> run_video(std::size_t limit_bytes, bool loop, const Stop_Signal& stop,
                                     const Receiver& receiver);

    /// The same of audio.
    ///
    /// @param is_over  no more frames are wanted.
    std::optional<Problem> run_audio(bool loop, const Stop_Signal& stop,
                                     audio::Audio_Receiver& receiver,
                                     const std::function<bool()>& is_over);

    /// As messages name it.
    const std::string& title() const { return title_; }

private:
    enum class Read { some, end, stopped, failed };

    // How what was read becomes frames.
    struct Division {
        std::function<void(std::span<const std::byte>)> feed;
        std::function<void()> finish;
        std::function<bool()> has_frames;
        std::function<bool()> is_over;  // no more frames are wanted
    };

    Read read_block(const Stop_Signal& stop);
    std::optional<Problem> run(const Division& division, bool loop, const Stop_Signal& stop);
    std::optional<Problem> recognise(bool at_end);
    std::optional<Problem> refuse_container() const;
    bool shows_frames() const;
    Problem not_recognised(bool at_end) const;
    Problem no_beginning() const;
    Problem no_frame() const;
    Problem input_problem(const std::string& text) const;
    Problem read_problem() const;

    const std::string file_;
    const std::string title_;
    const std::optional<Input_Codec> wanted_codec_;
    std::optional<Input_Codec> codec_;
    int descriptor_ = -1;
    std::vector<std::byte> beginning_;  // what open() read
    std::vector<std::byte> block_;      // what read_block() read last
};

}  // namespace zav_shm::tool
