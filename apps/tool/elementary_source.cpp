// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/elementary_source.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

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

bool has_start_code(std::span<const std::byte> bytes) { return media::Nal_Scan(bytes).next(); }

}  // namespace

Elementary_Source::Elementary_Source(std::string file, std::optional<media::Video_Codec> codec)
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
            return input_problem("stopped by a signal before " + title_ + " held a start code");
        }
        beginning_.insert(beginning_.end(), block_.begin(), block_.end());
        if (auto problem = recognise(read == Read::end)) {
            return problem;
        }
        if (codec_ && has_start_code(beginning_)) {
            return {};
        }
    }
}

std::optional<Problem> Elementary_Source::run(std::size_t limit_bytes, bool loop,
                                              const Stop_Signal& stop, const Receiver& receiver) {
    bool wanted = true;
    bool has_picture = false;
    media::Access_Unit_Splitter splitter(codec(), limit_bytes, [&](const media::Access_Unit& unit) {
        has_picture = has_picture || unit.has_picture;
        wanted = wanted && (!has_picture || receiver(unit));
    });
    splitter.feed(beginning_);
    beginning_ = {};
    while (wanted) {
        switch (read_block(stop)) {
            case Read::some:
                splitter.feed(block_);
                break;
            case Read::end:
                splitter.finish();
                if (!has_picture) {
                    return no_picture();
                }
                if (!loop || !wanted) {
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
    const std::string needed =
        "; an H.264 or H.265 elementary stream with start codes (Annex B) is needed";
    if (const char* container = media::guess_container(beginning_)) {
        return input_problem(title_ + " looks like a file of the container " + container + needed);
    }
    const auto shown = media::guess_codec(beginning_);
    if (shown && wanted_codec_ && *shown != *wanted_codec_) {
        return input_problem(title_ + " is a stream of " + name_of(*shown) +
                             " by its parameter sets or delimiters, and not of " +
                             name_of(*wanted_codec_) + " as --codec says");
    }
    codec_ = wanted_codec_ ? wanted_codec_ : shown;
    if (!at_end && beginning_.size() < beginning_bytes_max) {
        return {};
    }
    const std::string looked_at =
        at_end ? " its " + std::to_string(beginning_.size()) + " bytes"
               : " its first " + std::to_string(beginning_.size()) + " bytes";
    if (beginning_.empty()) {
        return input_problem(title_ + " is empty" + needed);
    }
    if (!has_start_code(beginning_)) {
        return input_problem("no start code in" + looked_at + " of " + title_ + needed);
    }
    if (!codec_) {
        return input_problem("cannot tell H.264 from H.265 by" + looked_at + " of " + title_ +
                             "; say which with --codec h264 or --codec h265");
    }
    return {};
}

Problem Elementary_Source::no_beginning() const {
    return input_problem("cannot go back to the beginning of " + title_ +
                         " for --loop: " + std::strerror(errno));
}

Problem Elementary_Source::no_picture() const {
    return input_problem("there is no picture of " + std::string(name_of(codec())) + " in " +
                         title_ + (wanted_codec_ ? "; is it what --codec says?" : ""));
}

Problem Elementary_Source::input_problem(const std::string& text) const {
    return {Exit_Status::input_output, text};
}

Problem Elementary_Source::read_problem() const {
    return input_problem("cannot read " + title_ + ": " + std::strerror(errno));
}

}  // namespace zav_shm::tool
