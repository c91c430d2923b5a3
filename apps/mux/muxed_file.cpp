// SPDX-License-Identifier: Apache-2.0
#include "apps/mux/muxed_file.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "apps/mux/frame_facts.h"

namespace zav_shm::mux {

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using tool::Exit_Status;
using tool::Problem;

// Where the stream does not say it.
constexpr nanoseconds picture_interval = 40ms;

// What the first sound of a file is waited for, and the last ones.
constexpr milliseconds first_sound_limit = 500ms;
constexpr milliseconds last_sound_limit = 200ms;

// Sounds that are so far behind the pictures do not come: the muxer would wait for them, and the
// pictures in memory.
constexpr std::int64_t sound_behind_max_ns = 3'000'000'000;

// The muxer's threads need milliseconds for what is left.
constexpr milliseconds end_limit = 10s;

// Presentation goes on with publication, but for the reordering of pictures and what a pipeline
// keeps back. Beyond that its clock was set.
constexpr std::int64_t jump_ns = 5'000'000'000;

bool is_video(std::uint32_t codec) { return codec == codec::h264 || codec == codec::h265; }

}  // namespace

Muxed_File::Muxed_File(const std::string& file, const Settings& settings, Sound_Track* sounds,
                       const tool::Stop_Signal& stop)
    : settings_(settings),
      sounds_(sounds),
      file_(file, -1, stop),
      index_("", -1, stop),
      recorded_(index_) {}

std::optional<Problem> Muxed_File::open(tool::Output_File::Clock::time_point end) {
    return file_.open(end);
}

std::optional<Problem> Muxed_File::begin() {
    return file_.empty() ? std::optional<Problem>()
                         : write_problem(file_, recorded_.totals(), errno);
}

// ---- what goes in ----

bool Muxed_File::write(int stream, const Received_Frame& frame) {
    if (frame.length == 0) {  // the end of a stream is one without a picture
        return !problem_;
    }
    if (problem_ || (!muxer_ && !begin_tracks(frame))) {
        return false;
    }
    const nanoseconds pts(apart_ns(frame.header.pts_ns, first_.pts_ns));
    const nanoseconds duration = duration_of(frame.header, picture_interval);
    muxer_->add_picture(frame.payload(),
                        {pts, decoding_->next(frame.payload(), pts, duration), duration},
                        frame.is_key_frame() || in_muxer_.empty());
    Picture& picture = in_muxer_.emplace_back();
    picture.stream = stream;
    static_cast<Frame_Facts&>(picture.frame) = frame;
    picture.frame.length = frame.length;
    handed_bytes_ += frame.length;
    last_ = frame.header;
    if (has_sounds_) {
        add_sounds(frame.header.pts_ns + duration.count(), 0ms);
    }
    return drain(0ms);
}

bool Muxed_File::begin_tracks(const Received_Frame& first) {
    if (!first.verified || !is_video(first.header.codec)) {
        return fail({Exit_Status::input_output,
                     std::string("cannot make ") + file_.title() +
                         (first.verified ? ": pictures have to be H.264 or H.265"
                                         : ": the frames have no header that says what they are")});
    }
    first_ = last_ = first.header;
    // A track of fragmented MP4 begins with its first time of decoding.
    decoding_.emplace(
        first.header.codec == codec::h264 ? media::Video_Codec::h264 : media::Video_Codec::h265,
        nanoseconds(0));
    std::optional<Frame_Format> sounds;
    if (sounds_ != nullptr) {
        sounds = sounds_->begin(first, first_sound_limit);
        if (!sounds) {
            tool::complain(file_.title() + " has no sound: none came from " + sounds_->title());
        } else if (!Muxer::can_hold(settings_.container, sounds->codec)) {
            tool::complain(file_.title() + " has no sound: " + sounds_->title() + " is no AAC or " +
                           "Opus" +
                           (settings_.container == Container::mp4
                                ? ", which is what MP4 holds; --format mkv holds G.711, too"
                                : ", nor G.711"));
            sounds.reset();
        }
    }
    has_sounds_ = sounds.has_value();
    sounds_until_ns_ = first.header.pts_ns;
    muxer_.emplace(settings_.container, format_of(first.header), sounds ? &*sounds : nullptr);
    return muxer_->failure().empty() || fail_of_muxer();
}

void Muxed_File::add_sounds(std::int64_t before_ns, milliseconds limit) {
    while (const Received_Frame* const sound = sounds_->next(before_ns, limit)) {
        sounds_until_ns_ = sounds_->time_ns_of(*sound);
        const nanoseconds time(
            std::max<std::int64_t>(apart_ns(sounds_until_ns_, first_.pts_ns), 0));
        muxer_->add_sound(sound->payload(), {time, time, Sound_Track::duration_of(*sound)});
    }
    if (sounds_->is_over() || apart_ns(before_ns, sounds_until_ns_) > sound_behind_max_ns) {
        tool::complain(file_.title() + " goes on without sound: " + sounds_->title() +
                       (sounds_->is_over() ? " is another stream now" : " is silent"));
        has_sounds_ = false;
        muxer_->end_sounds();
    }
}

bool Muxed_File::goes_on_with(const Received_Frame& frame) const {
    if (!muxer_) {
        return true;
    }
    const ZAV_SHM_Frame_Header& next = frame.header;
    const std::int64_t forward = apart_ns(next.pts_ns, last_.pts_ns);
    const std::int64_t jump = apart_ns(forward, apart_ns(next.publish_ns, last_.publish_ns));
    return frame.verified && next.epoch == last_.epoch && next.codec == last_.codec &&
           next.width == last_.width && next.height == last_.height && jump < jump_ns &&
           forward > -jump_ns;
}

// ---- what comes out ----

// Each piece goes to the file at once; what is told of the recording is what is in whole fragments.
bool Muxed_File::take(const Muxer::Piece& piece) {
    if (piece.begins_fragment()) {
        settle();
    }
    if (!file_.write(piece.bytes())) {
        return fail(write_problem(file_, recorded_.totals(), errno));
    }
    out_bytes_ += piece.bytes().size();
    if (piece.is_picture() && !in_muxer_.empty()) {
        in_fragment_.push_back(std::move(in_muxer_.front()));
        in_muxer_.pop_front();
    }
    return true;
}

// The present fragment is whole. Its bytes are those of its first picture, so that none of them
// counts before all are in the file.
void Muxed_File::settle() {
    if (in_fragment_.empty()) {
        return;
    }
    std::uint64_t bytes = out_bytes_ - std::exchange(fragments_bytes_, out_bytes_);
    for (const Picture& picture : in_fragment_) {
        recorded_.add(picture.stream, picture.frame, {std::exchange(bytes, 0), 0});
        handed_bytes_ -= picture.frame.length;
    }
    in_fragment_.clear();
    recorded_.settle(file_.written());
}

bool Muxed_File::drain(milliseconds limit) {
    while (const auto piece = muxer_->take(limit)) {
        if (!take(*piece)) {
            return false;
        }
    }
    return muxer_->failure().empty() || fail_of_muxer();
}

bool Muxed_File::flush_if_due() {
    if (problem_ || (muxer_ && !drain(0ms))) {
        return false;
    }
    const bool flushed = file_.flush_if_due();
    recorded_.settle(file_.written());
    return flushed || fail(write_problem(file_, recorded_.totals(), errno));
}

bool Muxed_File::fail(Problem problem) {
    problem_ = std::move(problem);
    return false;
}

bool Muxed_File::fail_of_muxer() {
    return fail({Exit_Status::input_output,
                 "cannot put more into " + file_.title() + ": " + muxer_->failure()});
}

// ---- the end ----

std::optional<Problem> Muxed_File::close() {
    if (muxer_ && !problem_) {
        if (has_sounds_) {
            add_sounds(last_.pts_ns + duration_of(last_, picture_interval).count(),
                       last_sound_limit);
        }
        muxer_->finish();
        const auto end = tool::Output_File::Clock::now() + end_limit;
        while (!problem_ && !muxer_->is_at_end() && tool::Output_File::Clock::now() < end) {
            drain(100ms);
        }
        if (!problem_ && !muxer_->is_at_end()) {
            fail(
                {Exit_Status::input_output, file_.title() + " lacks its end: it was not finished"});
        }
    }
    if (!problem_) {
        settle();
        if (!file_.flush()) {
            fail(write_problem(file_, recorded_.totals(), errno));
        }
    }
    recorded_.settle(file_.written());
    if (problem_) {
        file_.cut_back(recorded_.totals().bytes);
    }
    if (!file_.close(settings_.sync) && !problem_) {
        return close_problem(file_, recorded_.totals(), errno);
    }
    return problem_;
}

tool::Recorded_Totals Muxed_File::totals() const {
    tool::Recorded_Totals totals = recorded_.totals();
    totals.handed_over += in_muxer_.size() + in_fragment_.size();
    totals.handed_over_bytes += handed_bytes_;
    return totals;
}

// ---- a series ----

std::optional<Problem> Muxed_Files::open() {
    return sounds_ ? sounds_->open() : std::optional<Problem>();
}

std::string Muxed_Files::extension(std::uint32_t /*codec*/) const {
    return settings_.container == Container::mp4 ? ".mp4" : ".mkv";
}

std::unique_ptr<tool::Series_File> Muxed_Files::make(const std::string& file,
                                                     const std::string& /*index*/) const {
    return std::make_unique<Muxed_File>(file, settings_, sounds_.get(), stop_);
}

}  // namespace zav_shm::mux
