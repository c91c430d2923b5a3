// SPDX-License-Identifier: Apache-2.0
//
// Presentation times: what is added to them, who agrees on it, and when it changes.
#include <gtest/gtest.h>

#include "gst/stream_clock.h"

namespace {

using zav_shm::Frame_Facts;
using zav_shm::gst::Stream_Clock;
using zav_shm::gst::Timeline;

constexpr std::int64_t ms = 1'000'000;
constexpr std::int64_t second = 1000 * ms;

Frame_Facts frame(std::int64_t pts_ns, std::int64_t publish_ns, bool epoch_changed = false) {
    Frame_Facts facts;
    facts.header.pts_ns = pts_ns;
    facts.header.publish_ns = publish_ns;
    facts.received_ns = publish_ns;
    facts.verified = true;
    facts.epoch_changed = epoch_changed;
    return facts;
}

std::shared_ptr<Timeline> new_timeline() { return std::make_shared<Timeline>(); }

Stream_Clock::Presented presented(Stream_Clock& clock, const Frame_Facts& facts,
                                  std::int64_t now_ns) {
    const auto found = clock.present(facts, now_ns);
    EXPECT_TRUE(found);
    return found.value_or(Stream_Clock::Presented{});
}

TEST(Stream_Clock,
     live_frame_is_presented_when_it_was_published_and_the_next_as_far_behind_as_it_was) {
    Stream_Clock clock(new_timeline(), Stream_Clock::Align::live, Stream_Clock::Source::stream);
    EXPECT_EQ(presented(clock, frame(7, 100 * second), 103 * second).time_ns, 100 * second);
    // Published late, and early: only the presentation time counts.
    EXPECT_EQ(presented(clock, frame(7 + 40 * ms, 100 * second + 90 * ms), 103 * second).time_ns,
              100 * second + 40 * ms);
    const auto third = presented(clock, frame(7 + 80 * ms, 100 * second + 91 * ms), 103 * second);
    EXPECT_EQ(third.time_ns, 100 * second + 80 * ms);
    EXPECT_TRUE(third.goes_on);
    EXPECT_FALSE(third.is_another_time);
}

TEST(Stream_Clock, first_frame_of_a_history_is_presented_now) {
    Stream_Clock clock(new_timeline(), Stream_Clock::Align::first, Stream_Clock::Source::stream);
    EXPECT_EQ(presented(clock, frame(7, 90 * second), 100 * second).time_ns, 100 * second);
    EXPECT_EQ(presented(clock, frame(7 + second, 91 * second), 100 * second).time_ns, 101 * second);
}

TEST(Stream_Clock, monotonic_times_stay_what_they_are) {
    Stream_Clock clock(new_timeline(), Stream_Clock::Align::live, Stream_Clock::Source::monotonic);
    EXPECT_EQ(presented(clock, frame(99 * second, 100 * second), 100 * second).time_ns,
              99 * second);
}

TEST(Stream_Clock, frames_without_presentation_times_have_those_of_their_publication) {
    Stream_Clock clock(new_timeline(), Stream_Clock::Align::live, Stream_Clock::Source::stream);
    presented(clock, frame(0, 100 * second), 100 * second);
    for (int i = 1; i < 4; ++i) {
        const std::int64_t at = 100 * second + i * 33 * ms;
        EXPECT_EQ(presented(clock, frame(0, at), at).time_ns, at) << i;
    }
}

TEST(Stream_Clock, foreign_frames_have_the_time_at_which_they_came) {
    Stream_Clock clock(new_timeline(), Stream_Clock::Align::live, Stream_Clock::Source::stream);
    Frame_Facts foreign;
    foreign.received_ns = 55 * second;
    EXPECT_EQ(presented(clock, foreign, 56 * second).time_ns, 55 * second);
}

TEST(Stream_Clock, jump_of_the_presentation_times_goes_on_behind_what_was) {
    for (const std::int64_t jump : {-10 * second, 3600 * second}) {
        Stream_Clock clock(new_timeline(), Stream_Clock::Align::live, Stream_Clock::Source::stream);
        presented(clock, frame(50 * second, 100 * second), 100 * second);
        const auto behind = presented(clock, frame(50 * second + jump, 100 * second + 40 * ms),
                                      100 * second + 40 * ms);
        EXPECT_EQ(behind.time_ns, 100 * second + 40 * ms);
        EXPECT_FALSE(behind.goes_on);
    }
}

TEST(Stream_Clock, reordered_pictures_and_a_silent_minute_are_no_jump) {
    Stream_Clock clock(new_timeline(), Stream_Clock::Align::live, Stream_Clock::Source::stream);
    presented(clock, frame(10 * second, 100 * second), 100 * second);
    presented(clock, frame(10 * second + 120 * ms, 100 * second + 40 * ms), 0);
    EXPECT_TRUE(presented(clock, frame(10 * second + 40 * ms, 100 * second + 80 * ms), 0).goes_on);
    const auto later = presented(clock, frame(70 * second, 160 * second), 0);
    EXPECT_TRUE(later.goes_on);
    EXPECT_EQ(later.time_ns, 160 * second);
}

TEST(Stream_Clock, successor_that_goes_on_with_the_times_keeps_them_and_one_at_0_does_not_go_back) {
    Stream_Clock clock(new_timeline(), Stream_Clock::Align::live, Stream_Clock::Source::stream);
    presented(clock, frame(10 * second, 100 * second), 0);
    EXPECT_EQ(presented(clock, frame(15 * second, 105 * second + 3 * ms, true), 0).time_ns,
              105 * second);
    const auto anew = presented(clock, frame(0, 106 * second, true), 0);
    EXPECT_EQ(anew.time_ns, 106 * second);
    EXPECT_FALSE(anew.goes_on);
}

TEST(Stream_Clock, live_stream_follows_a_clock_that_drifts_and_one_late_frame_does_not_move_it) {
    Stream_Clock clock(new_timeline(), Stream_Clock::Align::live, Stream_Clock::Source::stream);
    presented(clock, frame(0, 100 * second), 0);
    presented(clock, frame(40 * ms, 101 * second), 0);  // late by almost a second
    std::int64_t steps = 0;
    for (std::int64_t i = 2; i < 2000; ++i) {
        const std::int64_t drift = i * ms;  // a clock that is 2.5 percent slow
        const auto next =
            presented(clock, frame(i * 40 * ms, 100 * second + i * 40 * ms + drift), 0);
        steps += next.is_another_time ? 1 : 0;
        const std::int64_t late = 100 * second + i * 40 * ms + drift - next.time_ns;
        EXPECT_LT(late, 600 * ms);
        EXPECT_GE(late, 0);
    }
    EXPECT_GT(steps, 2);
    EXPECT_LT(steps, 12);
}

TEST(Stream_Clock, live_stream_whose_clock_is_fast_comes_nearer_without_going_back) {
    Stream_Clock clock(new_timeline(), Stream_Clock::Align::live, Stream_Clock::Source::stream);
    std::int64_t last = 0;
    std::int64_t early = 0;
    for (std::int64_t i = 0; i < 20000; ++i) {
        const std::int64_t published = 100 * second + i * 40 * ms - i * ms / 100;
        const auto next = presented(clock, frame(i * 40 * ms, published), 0);
        EXPECT_GE(next.time_ns, last);
        last = next.time_ns;
        early = next.time_ns - published;
    }
    EXPECT_LT(early, 260 * ms);
}

TEST(Stream_Clock, no_frame_was_published_later_than_it_was_received) {
    Stream_Clock clock(new_timeline(), Stream_Clock::Align::live, Stream_Clock::Source::stream);
    Frame_Facts lie = frame(0, 9000 * second);
    lie.received_ns = 100 * second;
    EXPECT_EQ(presented(clock, lie, 100 * second).time_ns, 100 * second);
}

TEST(Stream_Clock, times_that_no_stream_has_do_no_harm) {
    Stream_Clock clock(new_timeline(), Stream_Clock::Align::live, Stream_Clock::Source::stream);
    for (const std::int64_t pts : {INT64_MAX, INT64_MIN, std::int64_t{0}, INT64_MAX - 1}) {
        EXPECT_TRUE(clock.present(frame(pts, INT64_MIN), 0));
        EXPECT_TRUE(clock.present(frame(pts, INT64_MAX), INT64_MAX / 4));
    }
}

TEST(Timeline, streams_that_were_simultaneous_stay_so_whoever_comes_first) {
    for (const bool audio_first : {true, false}) {
        const auto timeline = new_timeline();
        Stream_Clock audio(timeline, Stream_Clock::Align::live, Stream_Clock::Source::stream);
        Stream_Clock video(timeline, Stream_Clock::Align::live, Stream_Clock::Source::stream);
        // The video encoder takes 150 ms longer.
        const auto of_audio = frame(5 * second, 100 * second);
        const auto of_video = frame(5 * second, 100 * second + 150 * ms);
        EXPECT_FALSE(audio_first ? audio.present(of_audio, 0) : video.present(of_video, 0));
        if (!audio_first) {
            presented(audio, of_audio, 10 * ms);
        }
        const auto video_time = presented(video, of_video, 10 * ms).time_ns;
        EXPECT_EQ(presented(audio, of_audio, 10 * ms).time_ns, video_time);
        EXPECT_EQ(video_time, 100 * second + 150 * ms) << "none is presented before it is there";
    }
}

TEST(Timeline, silent_stream_is_waited_for_a_moment_and_takes_what_was_decided_then) {
    const auto timeline = new_timeline();
    Stream_Clock audio(timeline, Stream_Clock::Align::live, Stream_Clock::Source::stream);
    Stream_Clock video(timeline, Stream_Clock::Align::live, Stream_Clock::Source::stream);
    EXPECT_FALSE(audio.present(frame(0, 100 * second), 7));
    EXPECT_FALSE(audio.present(frame(0, 100 * second), 7 + Timeline::wait_ns - 1));
    EXPECT_TRUE(audio.present(frame(0, 100 * second), 7 + Timeline::wait_ns));
    EXPECT_EQ(presented(video, frame(60 * second, 160 * second + 90 * ms), 0).time_ns,
              160 * second);
}

TEST(Timeline, histories_of_two_streams_begin_with_the_older_frame) {
    const auto timeline = new_timeline();
    Stream_Clock audio(timeline, Stream_Clock::Align::first, Stream_Clock::Source::stream);
    Stream_Clock video(timeline, Stream_Clock::Align::first, Stream_Clock::Source::stream);
    const auto newest_sound = frame(8 * second, 98 * second);
    const auto key_picture = frame(5 * second, 95 * second);
    EXPECT_FALSE(audio.present(newest_sound, 100 * second));
    EXPECT_EQ(presented(video, key_picture, 100 * second).time_ns, 100 * second);
    EXPECT_EQ(presented(audio, newest_sound, 100 * second).time_ns, 103 * second);
}

TEST(Timeline, streams_with_other_origins_do_not_disturb_each_other) {
    const auto timeline = new_timeline();
    Stream_Clock one(timeline, Stream_Clock::Align::live, Stream_Clock::Source::stream);
    Stream_Clock other(timeline, Stream_Clock::Align::live, Stream_Clock::Source::stream);
    EXPECT_FALSE(one.present(frame(0, 100 * second), 0));
    EXPECT_EQ(presented(other, frame(500 * second, 100 * second), 0).time_ns, 100 * second);
    EXPECT_EQ(presented(one, frame(0, 100 * second), 0).time_ns, 100 * second);
}

TEST(Timeline, producer_that_comes_back_leaves_its_streams_in_sync) {
    const auto timeline = new_timeline();
    Stream_Clock audio(timeline, Stream_Clock::Align::live, Stream_Clock::Source::stream);
    Stream_Clock video(timeline, Stream_Clock::Align::live, Stream_Clock::Source::stream);
    EXPECT_FALSE(audio.present(frame(0, 100 * second), 0));
    presented(video, frame(0, 100 * second), 0);
    presented(audio, frame(0, 100 * second), 0);
    const auto sound = presented(audio, frame(second, 200 * second, true), 200 * second);
    const auto picture =
        presented(video, frame(second, 200 * second + 150 * ms, true), 201 * second);
    EXPECT_EQ(sound.time_ns, 200 * second);
    EXPECT_EQ(picture.time_ns, sound.time_ns);
    EXPECT_FALSE(picture.goes_on);
}

TEST(Timeline, is_one_for_each_pipeline_and_name_as_long_as_somebody_holds_it) {
    const int pipeline = 0;
    const int other = 0;
    const auto timeline = Timeline::of(&pipeline, "CAM_LOOP/0");
    EXPECT_EQ(Timeline::of(&pipeline, "CAM_LOOP/0"), timeline);
    EXPECT_NE(Timeline::of(&pipeline, "CAM_LOOP/1"), timeline);
    EXPECT_NE(Timeline::of(&other, "CAM_LOOP/0"), timeline);
}

}  // namespace
