// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/elementary_source.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "apps/audio/adts_splitter.h"
#include "apps/audio/ogg_opus.h"
#include "apps/audio/opus_head.h"
#include "apps/media/codec_guess.h"
#include "apps/media/nal_scan.h"
#include "apps/tool/options.h"

namespace zav_shm::tool {

namespace {

constexpr std::size_t block_bytes = 65536;

// How far to look for the first start code, and for what tells the codec: an encoder that is
// joined in mid-stream repeats its parameter sets within a few seconds.
constexpr std::size_t beginning_bytes_max = std::size_t{4} << 20;

std::string title_of(const std::string& file) {
    return file == standard_stream ? "standard input" : "\"" + file + "\"";
}

constexpr const char* needed =
    "; an H.264 or H.265 elementary stream with start codes (Annex B), AAC with ADTS headers, or "
    "Opus in Ogg is needed";

bool has_start_code(std::span<const std::byte> bytes) { return media::Nal_Scan(bytes).next(); }

const char* frame_name(Input_Codec codec) { return is_audio(codec) ? "frame" : "picture"; }

/// Counts the frames on their way.
class Counting_Receiver : public audio::Audio_Receiver {
public:
    explicit Counting_Receiver(audio::Audio_Receiver& receiver) : receiver_(receiver) {}

    void take(const audio::Audio_Frame& frame) override {
        has_frames_ = true;
        receiver_.take(frame);
    }
    void left_out(std::uint64_t bytes, const std::string& what) override {
        receiver_.left_out(bytes, what);
    }
    void remark(const std::string& text) override { receiver_.remark(text); }

    bool has_frames() const { return has_frames_; }

private:
    audio::Audio_Receiver& receiver_;
    bool has_frames_ = false;
};

}  // namespace

Elementary_Source::Elementary_Source(std::string file, std::optional<Input_Codec> codec)
    : file_(std::move(file)), title_(title_of(file_)), wanted_codec_(codec) {}

Elementary_Source::~Elementary_Source() {
    if (descriptor_ > STDIN_FILENO) {
        close(descriptor_);
    }
}

std::optional<Problem> Elementary_Source::open(bool again, const Stop_Signal& stop) {
    // Without blocking: a named pipe without a writer would hold the program up where no signal
    // ends it. Such a pipe becomes readable when the first writer has written, or gone again.
    descriptor_ = file_ == standard_stream
                      ? STDIN_FILENO
                      : ::open(file_.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (descriptor_ < 0) {
        return input_problem(std::string("cannot open ") + title_ + ": " + std::strerror(errno));
    }
    if (again && lseek(descriptor_, 0, SEEK_CUR) < 0) {
        return no_beginning();
    }
    for (;;) {
        const Read read = read_block(stop);
        if (read == Read::failed) {
            return read_problem();
        }
        if (read == Read::stopped) {
            return input_problem("stopped by a signal before " + title_ + " showed what it holds");
        }
        beginning_.insert(beginning_.end(), block_.begin(), block_.end());
        if (auto problem = recognise(read == Read::end)) {
            return problem;
        }
        if (codec_ && shows_frames()) {
            return {};
        }
    }
}

std::optional<Problem> Elementary_Source::run_video(std::size_t limit_bytes, bool loop,
                                                    const Stop_Signal& stop,
                                                    const Receiver& receiver) {
    bool wanted = true;
    bool has_picture = false;
    media::Access_Unit_Splitter splitter(video_codec_of(codec()), limit_bytes,
                                         [&](const media::Access_Unit& unit) {
                                             has_picture = has_picture || unit.has_picture;
                                             wanted = wanted && (!has_picture || receiver(unit));
                                         });
    return run({.feed = [&](std::span<const std::byte> block) { splitter.feed(block); },
                .finish = [&] { splitter.finish(); },
                .has_frames = [&] { return has_picture; },
                .is_over = [&] { return !wanted; }},
               loop, stop);
}

std::optional<Problem> Elementary_Source::run_audio(bool loop, const Stop_Signal& stop,
                                                    audio::Audio_Receiver& receiver,
                                                    const std::function<bool()>& is_over) {
    Counting_Receiver counting(receiver);
    std::unique_ptr<audio::Audio_Splitter> splitter;
    if (codec() == Input_Codec::opus) {
        splitter = audio::make_ogg_opus_splitter(counting);
    } else {
        splitter = std::make_unique<audio::Adts_Splitter>(counting);
    }
    return run({.feed = [&](std::span<const std::byte> block) { splitter->feed(block); },
                .finish = [&] { splitter->finish(); },
                .has_frames = [&] { return counting.has_frames(); },
                .is_over = is_over},
               loop, stop);
}

std::optional<Problem> Elementary_Source::run(const Division& division, bool loop,
                                              const Stop_Signal& stop) {
    division.feed(beginning_);
    beginning_ = {};
    while (!division.is_over()) {
        switch (read_block(stop)) {
            case Read::some:
                division.feed(block_);
                break;
            case Read::end:
                division.finish();
                if (!division.has_frames()) {
                    return no_frame();
                }
                if (!loop || division.is_over()) {
                    return {};
                }
                if (lseek(descriptor_, 0, SEEK_SET) != 0) {
                    return no_beginning();
                }
                break;
            case Read::stopped:
                return {};
            case Read::failed:
                return read_problem();
        }
    }
    return {};
}

Elementary_Source::Read Elementary_Source::read_block(const Stop_Signal& stop) {
    for (;;) {
        if (stop.requested()) {
            return Read::stopped;
        }
        if (!stop.wait_for(descriptor_, POLLIN,
                           Stop_Signal::Clock::now() + std::chrono::hours(1))) {
            continue;
        }
        block_.resize(block_bytes);
        const ssize_t got = read(descriptor_, block_.data(), block_.size());
        block_.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        if (got > 0) {
            return Read::some;
        }
        if (got == 0) {
            return Read::end;
        }
        if (errno != EINTR && errno != EAGAIN) {
            return Read::failed;
        }
    }
}

// Fills in the codec when it is not given; a problem when there is no hope.
std::optional<Problem> Elementary_Source::recognise(bool at_end) {
    if (auto problem = refuse_container()) {
        return problem;
    }
    const auto shown = guess_input_codec(beginning_, at_end);
    if (shown && wanted_codec_ && *shown != *wanted_codec_) {
        return input_problem(title_ + " is a stream of " + name_of(*shown) + " by its " +
                             (is_audio(*shown) ? "headers" : "parameter sets or delimiters") +
                             ", and not of " + name_of(*wanted_codec_) + " as --codec says");
    }
    codec_ = wanted_codec_ ? wanted_codec_ : shown;
    if (codec_ == Input_Codec::opus && !audio::has_ogg()) {
        return input_problem(title_ + " is to hold Opus in Ogg, and this zav-shm was built " +
                             "without libogg");
    }
    const bool is_long_enough = at_end || beginning_.size() >= beginning_bytes_max;
    if (is_long_enough && !(codec_ && shows_frames())) {
        return not_recognised(at_end);
    }
    return {};
}

std::optional<Problem> Elementary_Source::refuse_container() const {
    if (const char* container = media::guess_container(beginning_)) {
        return input_problem(title_ + " looks like a file of the container " + container + needed);
    }
    return {};
}

// Whether reading on can wait until frames are wanted.
bool Elementary_Source::shows_frames() const {
    return is_audio(*codec_) || has_start_code(beginning_);
}

Problem Elementary_Source::not_recognised(bool at_end) const {
    const std::string looked_at =
        at_end ? " its " + std::to_string(beginning_.size()) + " bytes"
               : " its first " + std::to_string(beginning_.size()) + " bytes";
    if (beginning_.empty()) {
        return input_problem(title_ + " is empty" + needed);
    }
    if (audio::begins_as_ogg(beginning_)) {
        return input_problem("no stream of Opus begins in" + looked_at + " of " + title_ +
                             ", which is Ogg" + needed);
    }
    if (!has_start_code(beginning_)) {
        return input_problem("no start code in" + looked_at + " of " + title_ +
                             ", and no ADTS headers" + needed);
    }
    return input_problem("cannot tell H.264 from H.265 by" + looked_at + " of " + title_ +
                         "; say which with --codec h264 or --codec h265");
}

Problem Elementary_Source::no_beginning() const {
    return input_problem("cannot go back to the beginning of " + title_ +
                         " for --loop: " + std::strerror(errno));
}

Problem Elementary_Source::no_frame() const {
    return input_problem(std::string("there is no ") + frame_name(codec()) + " of " +
                         name_of(codec()) + " in " + title_ +
                         (wanted_codec_ ? "; is it what --codec says?" : ""));
}

Problem Elementary_Source::input_problem(const std::string& text) const {
    return {Exit_Status::input_output, text};
}

Problem Elementary_Source::read_problem() const {
    return input_problem("cannot read " + title_ + ": " + std::strerror(errno));
}

}  // namespace zav_shm::tool
