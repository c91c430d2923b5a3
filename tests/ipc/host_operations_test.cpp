// SPDX-License-Identifier: Apache-2.0
//
// What the manager offers to the host of a center: interrupting waits that the clock holds, and
// looking at the relays without waiting for them.
#include <atomic>
#include <csignal>
#include <thread>

#include "support/channel.h"
#include "support/threads.h"

namespace {

using Key = Shm_Stream_Transmission_Index;
using Pair_Key = Shm_Stream_Transmission_Pair_Index;
using std::chrono::milliseconds;

constexpr long hour_ms = 3'600'000;

std::atomic<ZAV_SHM_Stream_Transmission_Distributor*> waited_for{nullptr};
std::atomic<pid_t> held_thread{0};
std::atomic<bool> was_held{false};

// What a relay does while the clock is set back by an hour, and afterwards.
void* held_for_an_hour(void* relay) {
    held_thread = gettid();
    if (waited_for != nullptr) {
        waited_for.load()->time_wait_receiver_exist(hour_ms);
        was_held = true;
    }
    return fun_transmission_stream(relay);
}

class Host_Operations : public Channels {
protected:
    void SetUp() override {
        Channels::SetUp();
        waited_for = nullptr;
        held_thread = 0;
        was_held = false;
        struct sigaction action {};
        action.sa_handler = [](int) {};  // without SA_RESTART
        sigaction(SIGUSR1, &action, &former_);
        for (const char* name : {"CAM_LOOP", "CAM_REC"}) {
            make_slot(4096, name);
            leaves_semaphores(producer_names(name));
            manager->create_receiver(Key(name, 0, 0));
        }
        leaves_semaphores(consumer_names("PLAYER"));
        manager->create_distributor(player);
        manager->create_stream_transmission();
    }

    // Thread sanitizers lose sight of a thread that is cancelled in a wait, so none is.
    void TearDown() override {
        for (const char* name : {"CAM_LOOP", "CAM_REC"}) {
            relay_of(name)->request_stop();
        }
        EXPECT_TRUE(becomes_true([this] { return manager->interrupt_waits(SIGUSR1) == 0; }));
        manager.reset();
        sigaction(SIGUSR1, &former_, nullptr);
        Channels::TearDown();
    }

    SHM_Stream_Transmission* relay_of(const char* producer) const {
        return manager->get_transmission(Key(producer, 0, 0));
    }

    const Key player{"PLAYER", 0, 0};
    const Pair_Key player_from_cam{std::string("PLAYER"), 0, 0, std::string("CAM_LOOP")};
    std::unique_ptr<SHM_Stream_Transmission_Manager> manager =
        std::make_unique<SHM_Stream_Transmission_Manager>(nullptr);

private:
    struct sigaction former_ {};
};

// ---- interrupting ----

TEST_F(Host_Operations, relay_held_by_a_wait_of_an_hour_goes_on_when_it_is_interrupted) {
    waited_for = manager->get_distributor(player);
    manager->start_stream_transmission(relay_of("CAM_LOOP"), held_for_an_hour);
    ASSERT_TRUE(becomes_true([] { return held_thread != 0 && is_asleep(held_thread); }));
    std::this_thread::sleep_for(milliseconds(50));
    ASSERT_FALSE(was_held);
    EXPECT_EQ(manager->interrupt_waits(SIGUSR1), 1);
    EXPECT_TRUE(becomes_true([] { return was_held.load(); }));
    manager->add_distributor(player_from_cam);
    EXPECT_TRUE(
        becomes_true([this] { return relay_of("CAM_LOOP")->counters().cycles.value() > 2; }));
}

TEST_F(Host_Operations, interrupting_counts_the_relays_that_run) {
    EXPECT_EQ(manager->interrupt_waits(SIGUSR1), 0);
    manager->start_stream_transmission(relay_of("CAM_REC"), fun_transmission_stream);
    EXPECT_EQ(manager->interrupt_waits(SIGUSR1), 1);
    manager->start_stream_transmission(relay_of("CAM_LOOP"), fun_transmission_stream);
    EXPECT_EQ(manager->interrupt_waits(SIGUSR1), 2);
}

TEST_F(Host_Operations, relay_that_has_left_is_not_interrupted) {
    manager->start_stream_transmission(relay_of("CAM_REC"), fun_transmission_stream);
    relay_of("CAM_REC")->stop();
    EXPECT_FALSE(relay_of("CAM_REC")->interrupt_wait(SIGUSR1));
}

// Interrupted in every wait and between them, also while it leaves.
TEST_F(Host_Operations, relay_survives_being_interrupted_all_the_time_until_it_ends) {
    for (int i = 0; i < 20; ++i) {
        SHM_Stream_Transmission relay;
        ASSERT_EQ(relay.run(fun_transmission_stream), 0);
        std::atomic<bool> ended{false};
        std::thread interrupter([&] {
            while (!ended) {
                relay.interrupt_wait(SIGUSR1);
            }
        });
        std::this_thread::sleep_for(milliseconds(2));
        relay.stop();
        ended = true;
        interrupter.join();
    }
}

TEST_F(Host_Operations, an_interrupted_wait_is_no_missed_one) {
    manager->start_stream_transmission(relay_of("CAM_LOOP"), held_for_an_hour);
    auto* const writer = manager->get_distributor(player);
    std::thread waiting([&] {
        held_thread = gettid();
        writer->time_wait_receiver_exist(hour_ms);
        was_held = true;
    });
    ASSERT_TRUE(becomes_true([&] { return is_asleep(held_thread); }));
    becomes_true([&] {
        pthread_kill(waiting.native_handle(), SIGUSR1);
        return was_held.load();
    });
    waiting.join();
    EXPECT_EQ(writer->get_sem_wait_error(), 0);
}

// ---- snapshot ----

TEST_F(Host_Operations, snapshot_lists_the_relays_by_key_with_their_consumers) {
    manager->add_distributor(player_from_cam);
    const auto relays = manager->snapshot();
    ASSERT_EQ(relays.size(), 2U);
    EXPECT_EQ(relays[0].name, "CAM_LOOP");
    EXPECT_EQ(relays[1].name, "CAM_REC");
    ASSERT_EQ(relays[0].consumers.size(), 1U);
    EXPECT_EQ(relays[0].consumers[0].name, "PLAYER");
    EXPECT_TRUE(relays[1].consumers.empty());
    manager->remove_distributor(player);
    EXPECT_TRUE(manager->snapshot()[0].consumers.empty());
}

TEST_F(Host_Operations, snapshot_has_what_the_relay_counted) {
    manager->add_distributor(player_from_cam);
    const Peer producer(producer_names());
    const Peer consumer(consumer_names("PLAYER"));
    consumer.post(2);  // present
    producer.post(0);  // frame written
    consumer.post(1);  // read done
    relay_of("CAM_LOOP")->transmission_frame();
    auto relay = manager->snapshot()[0];
    EXPECT_EQ(relay.cycles, 1U);
    EXPECT_EQ(relay.frames, 1U);
    EXPECT_EQ(relay.live, 1);
    EXPECT_EQ(relay.consumers[0].frames, 1U);
    EXPECT_EQ(relay.consumers[0].missed_in_row, 0);

    relay_of("CAM_LOOP")->transmission_frame();  // nobody is present
    relay = manager->snapshot()[0];
    EXPECT_EQ(relay.cycles, 2U);
    EXPECT_EQ(relay.frames, 1U);
    EXPECT_EQ(relay.live, 0);
    EXPECT_EQ(relay.presence_timeouts, 1U);
    EXPECT_EQ(relay.late_read_timeouts, 1U);
    EXPECT_EQ(relay.consumers[0].missed_in_row, 2);
}

TEST_F(Host_Operations, snapshot_names_no_relay_for_keys_that_requests_left_behind) {
    manager->add_distributor(Pair_Key(std::string("PLAYER"), 7, 7, std::string("NOBODY")));
    EXPECT_EQ(manager->snapshot().size(), 2U);
}

TEST_F(Host_Operations, snapshot_does_not_wait_for_a_relay_that_is_held) {
    waited_for = manager->get_distributor(player);
    manager->start_stream_transmission(relay_of("CAM_LOOP"), held_for_an_hour);
    ASSERT_TRUE(becomes_true([] { return held_thread != 0 && is_asleep(held_thread); }));
    EXPECT_EQ(manager->snapshot().size(), 2U);
    manager->interrupt_waits(SIGUSR1);
}

}  // namespace
