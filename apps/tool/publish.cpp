// SPDX-License-Identifier: Apache-2.0
#include <vector>

#include "apps/media/picture_size.h"
#include "apps/tool/audio_stream.h"
#include "apps/tool/commands.h"
#include "apps/tool/elementary_source.h"
#include "apps/tool/frame_output.h"
#include "apps/tool/synthetic_pattern.h"
#include "frame/frame_header.h"

namespace zav_shm::tool {

namespace {

/// Passes access units on and keeps the format that goes with them.
class Picture_Stream {
public:
    Picture_Stream(const Publish_Options& options, media::Video_Codec codec, Frame_Output& output)
        : options_(options), codec_(codec), output_(output) {
        format_.codec = header_codec(input_codec_of(codec));
        format_.width = options.width;
        format_.height = options.height;
        output_.set_format(format_);
    }

    void pass(const media::Access_Unit& unit) {
        follow_codec(unit.codec);
        if (unit.has_configuration && !unit.too_long) {
            learn_size(unit);
        }
        output_.publish({.payload = unit.bytes,
                         .size_bytes = unit.size_bytes,
                         .entry = entry_of(unit),
                         .has_configuration = unit.has_configuration,
                         .is_last = unit.is_last && !options_.loop,
                         .is_field = unit.is_field});
    }

private:
    static Entry_Point entry_of(const media::Access_Unit& unit) {
        if (unit.is_key) {
            return Entry_Point::key_frame;
        }
        return unit.is_recovery_point ? Entry_Point::recovery_point : Entry_Point::none;
    }

    void follow_codec(media::Video_Codec codec) {
        if (codec == codec_) {
            return;
        }
        complain("the stream changes from " + std::string(name_of(codec_)) + " to " +
                 name_of(codec) + " at frame " + std::to_string(output_.next_sequence()));
        codec_ = codec;
        format_.codec = header_codec(input_codec_of(codec));
        output_.set_format(format_);
    }

    void learn_size(const media::Access_Unit& unit) {
        const auto size = media::picture_size(codec_, unit.bytes);
        const bool given = options_.width != 0 || options_.height != 0;
        if (!size || given || (size->width == format_.width && size->height == format_.height)) {
            return;
        }
        format_.width = size->width;
        format_.height = size->height;
        output_.set_format(format_);
    }

    const Publish_Options& options_;
    media::Video_Codec codec_;
    Frame_Output& output_;
    Frame_Format format_;
};

std::optional<Problem> publish_pictures(const Publish_Options& options, const Stop_Signal& stop,
                                        Elementary_Source& source, Frame_Output& output) {
    Picture_Stream stream(options, video_codec_of(source.codec()), output);
    const std::size_t limit = options.unit_limit != 0 ? options.unit_limit : output.page_bytes();
    return source.run_video(limit, options.loop, stop, [&](const media::Access_Unit& unit) {
        stream.pass(unit);
        return !output.is_over();
    });
}

/// @param has_loss  becomes true when something of the input was left out.
std::optional<Problem> publish_audio(const Publish_Options& options, const Stop_Signal& stop,
                                     Elementary_Source& source, Frame_Output& output,
                                     bool& has_loss) {
    Audio_Stream stream(options, source.codec(), source.title(), output);
    auto problem =
        source.run_audio(options.loop, stop, stream, [&output] { return output.is_over(); });
    has_loss = stream.tell_left_out();
    return problem;
}

void publish_synthetic(const Publish_Options& options, Frame_Output& output) {
    Frame_Format format;
    format.codec = codec::raw;
    format.width = options.width;
    format.height = options.height;
    output.set_format(format);
    std::vector<std::byte> payload(options.size);
    for (std::uint64_t number = 0; !output.is_over(); ++number) {
        fill_synthetic(payload, output.next_sequence());
        output.publish({.payload = payload,
                        .size_bytes = payload.size(),
                        .entry = number % options.key_interval == 0 ? Entry_Point::key_frame
                                                                    : Entry_Point::none,
                        .has_configuration = false,
                        .is_last = number + 1 == options.count});
    }
}

}  // namespace

Exit_Status run(const Publish_Options& options, const Standard_Output& standard_output) {
    const Stop_Signal stop;
    Elementary_Source source(options.file, options.codec);
    if (!options.synthetic) {
        if (const auto problem = source.open(options.loop, stop)) {
            return report(*problem);
        }
        if (is_audio(source.codec())) {
            if (const auto problem = Audio_Stream::refuse_options(options, source.codec())) {
                return report(*problem);
            }
        }
    }
    Frame_Output output(options, standard_output.descriptor(), stop);
    if (const auto problem = output.open()) {
        return report(*problem);
    }
    std::optional<Problem> problem;
    bool has_loss = false;
    if (options.synthetic) {
        publish_synthetic(options, output);
    } else if (is_audio(source.codec())) {
        problem = publish_audio(options, stop, source, output, has_loss);
    } else {
        problem = publish_pictures(options, stop, source, output);
    }
    const Exit_Status status = output.close();
    if (problem) {
        return report(*problem);
    }
    return status == Exit_Status::ok && has_loss ? Exit_Status::incomplete : status;
}

}  // namespace zav_shm::tool
