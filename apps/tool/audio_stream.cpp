// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/audio_stream.h"

#include <utility>

namespace zav_shm::tool {

namespace {

// A damaged file would fill the screen.
constexpr std::uint64_t places_told_max = 5;

std::string text_of(const audio::Audio_Format& format) {
    const std::string channels =
        format.channels == 0
            ? "channels as its frames say"
            : std::to_string(format.channels) + (format.channels == 1 ? " channel" : " channels");
    return std::to_string(format.sample_rate) + " Hz, " + channels;
}

}  // namespace

Audio_Stream::Audio_Stream(const Publish_Options& options, Input_Codec codec, std::string title,
                           Frame_Output& output)
    : options_(options), codec_(codec), title_(std::move(title)), output_(output) {}

void Audio_Stream::take(const audio::Audio_Frame& frame) {
    if (frame.format != format_) {
        follow_format(frame);
    }
    const auto begin = time_at(samples_);
    const auto end = time_at(samples_ + frame.samples);
    samples_ += frame.samples;
    output_.publish({.payload = frame.bytes,
                     .size_bytes = frame.bytes.size(),
                     .entry = Entry_Point::key_frame,
                     .has_configuration = codec_ == Input_Codec::aac,
                     .follows_damage = frame.follows_damage,
                     .is_last = frame.is_last && !options_.loop,
                     .time = Frame_Output::Time{.begin = begin, .end = end}});
}

void Audio_Stream::follow_format(const audio::Audio_Frame& frame) {
    const bool is_first = format_.sample_rate == 0;
    if (is_first) {
        const std::string skip = frame.pre_skip == 0
                                     ? ""
                                     : ", of which the first " + std::to_string(frame.pre_skip) +
                                           " samples are not to be heard";
        complain(title_ + " is " + name_of(codec_) + ", " + text_of(frame.format) + skip);
    } else {
        complain("the stream changes from " + text_of(format_) + " to " + text_of(frame.format) +
                 " at frame " + std::to_string(output_.next_sequence()));
        begin_ = time_at(samples_);
    }
    samples_ = 0;
    format_ = frame.format;
    if (is_first) {
        begin_ = -time_at(frame.pre_skip);
    }
    output_.set_format({.codec = header_codec(codec_),
                        .rate_num = format_.sample_rate,
                        .channels = format_.channels});
}

std::chrono::nanoseconds Audio_Stream::time_at(std::uint64_t samples) const {
    return begin_ + time_of(Rate{format_.sample_rate, 1}, samples);
}

void Audio_Stream::left_out(std::uint64_t bytes, const std::string& what) {
    const bool is_first = output_.next_sequence() == 1;
    has_loss_ = has_loss_ || !is_first;
    left_out_bytes_ += bytes;
    if (places_++ < places_told_max) {
        complain(title_ + " holds " + what +
                 (is_first ? "" : ", behind frame " + std::to_string(output_.next_sequence() - 1)) +
                 ": left out" +
                 (places_ == places_told_max ? "; further places are only counted" : ""));
    }
}

void Audio_Stream::remark(const std::string& text) { complain(title_ + ": " + text); }

bool Audio_Stream::tell_left_out() const {
    if (places_ > 1) {
        complain("at " + std::to_string(places_) + " places of " + title_ + ", " +
                 std::to_string(left_out_bytes_) + " bytes in all were left out");
    }
    return has_loss_;
}

std::optional<Problem> Audio_Stream::refuse_options(const Publish_Options& options,
                                                    Input_Codec codec) {
    const std::string name = name_of(codec);
    if (options.has_rate && options.rate.is_paced()) {
        return Problem{Exit_Status::usage,
                       "--fps does not go with " + name +
                           ", whose samples tell its pace; --fps 0 publishes it as it arrives, or "
                           "as fast as it is taken"};
    }
    for (const auto& [given, option] :
         {std::pair{options.width != 0, "--width"}, std::pair{options.height != 0, "--height"},
          std::pair{options.unit_limit != 0, "--unit-limit"}}) {
        if (given) {
            return Problem{Exit_Status::usage, std::string(option) + " does not go with " + name};
        }
    }
    return {};
}

}  // namespace zav_shm::tool
