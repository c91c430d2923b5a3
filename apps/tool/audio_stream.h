// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "apps/audio/audio_splitter.h"
#include "apps/tool/frame_output.h"
#include "apps/tool/input_codec.h"
#include "apps/tool/options.h"

namespace zav_shm::tool {

/// Passes the frames of audio on, each at the time that the samples before it take, and tells what
/// of the input is not among them.
///
/// Time counts what is published: what is missing in the input does not move what follows, and has
/// the discontinuity flag. Time 0 is the first sample to be heard, so that Opus, whose first
/// samples are not, begins before it.
class Audio_Stream : public audio::Audio_Receiver {
public:
    /// @param title  of the input, as messages name it.
    Audio_Stream(const Publish_Options& options, Input_Codec codec, std::string title,
                 Frame_Output& output);

    void take(const audio::Audio_Frame& frame) override;
    void left_out(std::uint64_t bytes, const std::string& what) override;
    void remark(const std::string& text) override;

    /// Tells how much was left out in all.
    ///
    /// @return whether something was, apart from what stood before the first frame.
    bool tell_left_out() const;

    /// Why these options do not go with audio, if so.
    static std::optional<Problem> refuse_options(const Publish_Options& options, Input_Codec codec);

private:
    void follow_format(const audio::Audio_Frame& frame);
    std::chrono::nanoseconds time_at(std::uint64_t samples) const;

    const Publish_Options& options_;
    const Input_Codec codec_;
    const std::string title_;
    Frame_Output& output_;
    audio::Audio_Format format_;
    std::chrono::nanoseconds begin_{0};  // of the samples below
    std::uint64_t samples_ = 0;          // since the rate changed last
    std::uint64_t places_ = 0;           // where something was left out
    std::uint64_t left_out_bytes_ = 0;
    bool has_loss_ = false;  // behind the first frame
};

}  // namespace zav_shm::tool
