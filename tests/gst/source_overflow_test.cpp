// SPDX-License-Identifier: Apache-2.0
//
// zavsrc: where it goes on when the pipeline was slower than the history is long.
#include "source_fixture.h"
#include "support/threads.h"

namespace {

constexpr unsigned overrun_frames = 200;
constexpr unsigned overrun_keys = 7;
constexpr unsigned history_max = 60;  // frames of 20,000 bytes in 1 MiB, and a few more

class Source_Overflow : public Source_Element {
protected:
    using Source_Element::publish;

    void publish_long(unsigned number) const {
        publish(*camera, Bytes(20'000, static_cast<std::byte>(number)),
                {.flags =
                     number % overrun_keys == 0 ? zav_shm::frame_flag::key_frame : std::uint16_t{0},
                 .pts = std::chrono::nanoseconds(number * 20 * ms)});
    }

    /// The first frame behind the jump of a pipeline that stood still meanwhile.
    std::optional<Taken> behind_the_jump(const std::string& properties) const {
        const Taking_Pipeline pipeline("zavsrc name=in producer=CAM_LOOP from=oldest " +
                                       properties + " ! appsink name=out sync=false max-buffers=1");
        pipeline.set_state(GST_STATE_PLAYING);
        publish_long(0);
        auto last = pipeline.next();
        // One that the sink holds, and one that there is no room for.
        for (unsigned number = 1; number <= 2; ++number) {
            publish_long(number);
            EXPECT_TRUE(becomes_true([&] { return pipeline.figure("frames") > number; }));
        }
        for (unsigned number = 3; number < overrun_frames; ++number) {
            publish_long(number);
        }
        while (last) {
            auto next = pipeline.next();
            if (next && next->sequence > overrun_frames / 2) {
                return next;
            }
            last = std::move(next);
        }
        return std::nullopt;
    }
};

TEST_F(Source_Overflow, goes_on_with_a_key_frame_unless_told_otherwise) {
    const auto taken = behind_the_jump("");
    ASSERT_TRUE(taken);
    EXPECT_FALSE(taken->is_delta);
    EXPECT_TRUE(taken->is_discontinuous);
    EXPECT_GE(taken->sequence, overrun_frames - history_max);
    EXPECT_LT(taken->sequence, overrun_frames - overrun_keys) << "as much as there is";
}

TEST_F(Source_Overflow, goes_on_behind_the_oldest_frame_that_is_left) {
    const auto taken = behind_the_jump("overflow=drop-oldest keep-all=true");
    ASSERT_TRUE(taken);
    EXPECT_TRUE(taken->is_discontinuous);
    EXPECT_GE(taken->sequence, overrun_frames - history_max);
    EXPECT_LT(taken->sequence, overrun_frames - history_max / 2);
}

TEST_F(Source_Overflow, goes_on_with_the_newest_frame) {
    const auto taken = behind_the_jump("overflow=newest-only keep-all=true");
    ASSERT_TRUE(taken);
    EXPECT_GE(taken->sequence, overrun_frames - 1);
}

}  // namespace
