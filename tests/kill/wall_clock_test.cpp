// SPDX-License-Identifier: Apache-2.0
//
// Producer and consumers whose wall clock is set back and forth by an hour, by a shim that is
// loaded before them (centerd/clock_shim.cpp).
#include <fstream>
#include <thread>

#include "device.h"
#include "ipc/monotonic_clock.h"

using namespace std::chrono_literals;

namespace {

TEST_F(Device, frames_flow_on_while_the_wall_clock_of_its_clients_is_set) {
    const std::string ahead = folder() + "/ahead";
    const auto set_ahead = [&ahead](const char* seconds) { std::ofstream(ahead) << seconds; };
    set_ahead("3600");
    fps_ = 60;
    start_role(Role::center);
    client_environment = {"LD_PRELOAD=" ZAV_TEST_CLOCK_SHIM, "CLOCK_SHIM_AHEAD=" + ahead};
    start_role(Role::producer);
    for (int i = 0; i < subscriber_count; ++i) {
        start_subscriber(i);
    }
    ASSERT_TRUE(becomes_full(10s));
    for (const char* seconds : {"0", "3600", "-3600", "0"}) {
        set_ahead(seconds);
        std::this_thread::sleep_for(500ms);
        EXPECT_TRUE(becomes_full(1s)) << seconds;
    }
    end_all();
    EXPECT_EQ(wrong_frames(), 0U);
    for (int i = 0; i < subscriber_count; ++i) {
        const Frame_Log& log = log_of(i);
        for (std::size_t at = 60; at < log.count; ++at) {
            const std::int64_t before = log.entries.at(at - 1).ns;
            const std::int64_t gap = log.entries.at(at).ns - before;
            EXPECT_LT(gap - machine.stalled_ns(before, before + gap), 200'000'000);
        }
    }
}

}  // namespace
