// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>

#include "support/channel.h"
#include "support/threads.h"

namespace {

using std::chrono::milliseconds;

bool relay_thread_runs() {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream file(task.path() / "comm");
        std::string name;
        std::getline(file, name);
        if (name == "zav_relay") {
            return true;
        }
    }
    return false;
}

class Relay_Thread : public Channels {
protected:
    // A relay in the middle of one of its waits, whichever the consumer's state leads to.
    void destroy_in_a_wait(const std::function<void(const Peer&)>& prepare) {
        const auto source = make_source();
        const auto writer = make_writer("PLAYER");
        const Peer consumer(consumer_names("PLAYER"));
        auto relay = std::make_unique<SHM_Stream_Transmission>(source.get());
        relay->insert_distributor(writer.get());
        prepare(consumer);
        ASSERT_EQ(relay->run(fun_transmission_stream), 0);
        ASSERT_TRUE(becomes_true(relay_thread_runs));
        std::this_thread::sleep_for(milliseconds(3));
        relay.reset();
        EXPECT_TRUE(becomes_true([] { return !relay_thread_runs(); }));
    }
};

std::atomic<int> turns{0};
std::atomic<void*> argument{nullptr};

void* return_at_once(void* relay) {
    argument = relay;
    ++turns;
    return nullptr;
}

void* turn_for_ever(void* relay) {
    while (true) {
        static_cast<SHM_Stream_Transmission*>(relay)->transmission_frame();
        ++turns;
    }
}

void* sleep_for_ever(void*) {
    ++turns;
    pause();
    return nullptr;
}

TEST_F(Relay_Thread, relay_that_was_never_started_is_destroyed_safely) {
    const SHM_Stream_Transmission without_source;
    const auto source = make_source();
    const SHM_Stream_Transmission with_source(source.get());
}

TEST_F(Relay_Thread, has_left_when_the_destructor_of_an_idle_relay_returns) {
    auto relay = std::make_unique<SHM_Stream_Transmission>();
    ASSERT_EQ(relay->run(fun_transmission_stream), 0);
    ASSERT_TRUE(becomes_true(relay_thread_runs));
    const Stopwatch watch;
    relay.reset();
    EXPECT_LT(watch.elapsed(), std::chrono::seconds(10));
    EXPECT_TRUE(becomes_true([] { return !relay_thread_runs(); }));
}

TEST_F(Relay_Thread, has_left_when_destroyed_in_its_presence_or_late_read_wait) {
    for (int i = 0; i < 10; ++i) {
        destroy_in_a_wait([](const Peer&) {});
    }
}

TEST_F(Relay_Thread, has_left_when_destroyed_in_its_frame_wait) {
    for (int i = 0; i < 10; ++i) {
        destroy_in_a_wait([](const Peer& consumer) { consumer.post(2); });
    }
}

TEST_F(Relay_Thread, has_left_when_destroyed_in_its_read_wait) {
    for (int i = 0; i < 10; ++i) {
        destroy_in_a_wait([](const Peer& consumer) {
            const Peer producer(producer_names());
            producer.post(0);
            consumer.post(2);
        });
    }
}

// The writers and the source go right after the relay; a thread that still ran would touch them.
TEST_F(Relay_Thread, touches_nothing_after_the_destructor) {
    for (int i = 0; i < 20; ++i) {
        auto source = make_source();
        auto writer = make_writer("PLAYER");
        {
            SHM_Stream_Transmission relay(source.get());
            ASSERT_EQ(relay.run(fun_transmission_stream), 0);
            relay.insert_distributor(writer.get());
        }
        writer.reset();
        source.reset();
    }
}

TEST_F(Relay_Thread, routine_gets_the_relay_and_may_return_early) {
    turns = 0;
    SHM_Stream_Transmission relay;
    ASSERT_EQ(relay.run(return_at_once), 0);
    EXPECT_TRUE(becomes_true([] { return turns == 1; }));
    EXPECT_EQ(argument, &relay);
}

// ThreadSanitizer takes a thread that was cancelled in a wait for one that is still inside it, and
// sees none of the locks that it takes on its way out.
TEST_F(Relay_Thread, routine_that_never_looks_is_cancelled) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "cancellation and ThreadSanitizer do not go together";
#endif
    for (const auto routine : {turn_for_ever, sleep_for_ever}) {
        turns = 0;
        const auto source = make_source();
        const auto writer = make_writer("PLAYER");
        SHM_Stream_Transmission relay(source.get());
        relay.insert_distributor(writer.get());
        ASSERT_EQ(relay.run(routine), 0);
        EXPECT_TRUE(becomes_true([] { return turns > 0; }));
    }
}

// From the request on no cycle waits, and only waits were places to be cancelled at.
TEST_F(Relay_Thread, routine_that_goes_on_after_the_request_to_stop_is_cancelled) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "cancellation and ThreadSanitizer do not go together";
#endif
    turns = 0;
    const auto source = make_source();
    const auto writer = make_writer("PLAYER");
    SHM_Stream_Transmission relay(source.get());
    relay.insert_distributor(writer.get());
    ASSERT_EQ(relay.run(turn_for_ever), 0);
    EXPECT_TRUE(becomes_true([] { return turns > 0; }));
    relay.request_stop();
    const auto before = turns.load();
    EXPECT_TRUE(becomes_true([before] { return turns > before + 1; }));
}

TEST_F(Relay_Thread, sleeps_without_consumers_and_serves_one_as_soon_as_it_is_inserted) {
    const auto source = make_source();
    const auto writer = make_writer("PLAYER");
    SHM_Stream_Transmission relay(source.get());
    ASSERT_EQ(relay.run(fun_transmission_stream), 0);
    ASSERT_TRUE(becomes_true(relay_thread_runs));
    for (int i = 0; i < 5; ++i) {
        std::this_thread::sleep_for(milliseconds(20));
        EXPECT_EQ(relay.counters().cycles.value(), 0U);
    }
    const auto begin = std::chrono::steady_clock::now();
    relay.insert_distributor(writer.get());
    EXPECT_TRUE(becomes_true([&relay] { return relay.counters().cycles.value() != 0; }));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, milliseconds(900)) << "not by the clock";
    relay.delete_distributor(writer.get());
}

TEST_F(Relay_Thread, second_run_and_null_routine_are_refused) {
    SHM_Stream_Transmission relay;
    EXPECT_EQ(relay.run(nullptr), EINVAL);
    EXPECT_EQ(relay.run(fun_transmission_stream), 0);
    EXPECT_EQ(relay.run(fun_transmission_stream), EBUSY);
}

TEST_F(Relay_Thread, many_relays_stop_together_when_asked_first) {
    std::vector<std::unique_ptr<SHM_Stream_Transmission>> relays;
    for (int i = 0; i < 34; ++i) {
        relays.push_back(std::make_unique<SHM_Stream_Transmission>());
        ASSERT_EQ(relays.back()->run(fun_transmission_stream), 0);
    }
    for (const auto& relay : relays) {
        relay->request_stop();
    }
    relays.clear();
    EXPECT_TRUE(becomes_true([] { return !relay_thread_runs(); }));
}

TEST_F(Relay_Thread, body_without_a_relay_returns) {
    EXPECT_EQ(fun_transmission_stream(nullptr), nullptr);
}

}  // namespace
