// SPDX-License-Identifier: Apache-2.0
//
// zavsink before a reader that is slower than the pipeline.
#include <thread>

#include "sink_fixture.h"
#include "support/threads.h"

using namespace std::chrono_literals;

namespace {

constexpr int pushed_frames = 150;
constexpr std::size_t long_filling = 4000;  // frames of it are ten times what the history holds

class Paced : public Sink_Element {
protected:
    struct Read {
        std::uint64_t frames = 0;
        std::uint64_t lost = 0;
    };

    /// Pushes all at once beside a reader that takes a frame every 4 ms.
    Read read_slowly(const std::string& properties) {
        begin("history=65536 unit-limit=8192 " + properties);
        push(key_unit());
        next();
        Read read;
        std::thread reader([&] {
            while (const auto frame = next()) {
                ++read.frames;
                read.lost += frame->before.lost();
                std::this_thread::sleep_for(4ms);
            }
        });
        for (int i = 0; i < pushed_frames; ++i) {
            EXPECT_EQ(push(key_unit(long_filling)), GST_FLOW_OK);
        }
        reader.join();
        return read;
    }
};

TEST_F(Paced, slow_reader_gets_every_frame) {
    const Read read = read_slowly("paced=true pace-limit=5000");
    EXPECT_EQ(read.frames, std::uint64_t{pushed_frames});
    EXPECT_EQ(read.lost, 0U);
}

TEST_F(Paced, slow_reader_is_overtaken_without_it) {
    const Read read = read_slowly("");
    EXPECT_GT(read.lost, 0U);
}

TEST_F(Paced, reader_that_does_not_move_is_waited_for_once) {
    begin("history=65536 unit-limit=8192 paced=true pace-limit=300");
    push(key_unit());
    next();
    const Stopwatch watch;
    for (int i = 0; i < pushed_frames; ++i) {
        EXPECT_EQ(push(key_unit(long_filling)), GST_FLOW_OK);
    }
    EXPECT_GE(watch.elapsed(), 300ms);
    EXPECT_LT(watch.elapsed(), 3000ms);
    EXPECT_EQ(figure("published"), std::uint64_t{pushed_frames} + 1);
}

}  // namespace
