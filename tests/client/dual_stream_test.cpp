// SPDX-License-Identifier: Apache-2.0
#include "client/shm_dual_stream_receiver.h"

#include <optional>
#include <type_traits>

#include "support/channel.h"

namespace {

constexpr std::size_t ready = 0;
constexpr std::size_t read_done = 1;

using Streams = ZAV_SHM_Dual_Stream_Receiver;

class Dual_Stream : public Channels {
protected:
    void SetUp() override {
        Channels::SetUp();
        for (const char* name : {"MAIN", "SUB"}) {
            make_slot(4096, name);
            writers.push_back(make_writer(name));
        }
        main = open_consumer("MAIN", "MAIN");
        sub = open_consumer("SUB", "SUB");
        main_relay.emplace(consumer_names("MAIN"));
        sub_relay.emplace(consumer_names("SUB"));
    }
    void TearDown() override {
        main_relay.reset();
        sub_relay.reset();
        main.reset();
        sub.reset();
        writers.clear();
        Channels::TearDown();
    }

    // Both slots set, the main stream current.
    void start_with_main() {
        streams.set_dual_stream(main.get(), sub.get());
        output_of([this] { streams.enable_main_stream(); });
    }

    static std::size_t count(const std::string& text, const std::string& part) {
        std::size_t found = 0;
        for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) {
            ++found;
        }
        return found;
    }

    std::vector<std::unique_ptr<Writer>> writers;
    std::unique_ptr<ZAV_SHM_Stream_Receiver> main;
    std::unique_ptr<ZAV_SHM_Stream_Receiver> sub;
    std::optional<Peer> main_relay;
    std::optional<Peer> sub_relay;
    Streams streams;
};

static_assert(Streams::MAX_DUAL_STREAM_NUM == 2 && Streams::MAIN_STREAM_INDEX == 0 &&
              Streams::SUB_STREAM_INDEX == 1 && Streams::INVALID_STREAM_INDEX == -1);
static_assert(std::has_virtual_destructor_v<Streams>);

TEST_F(Dual_Stream, new_object_has_no_stream_and_says_so_when_it_is_read) {
    Frame frame(10);
    EXPECT_EQ(streams.get_current_stream_index(), -1);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(streams.receive_frame(frame.get()), 0); }),
              "There is not stream_receiver_cursor\n");
    EXPECT_EQ(output_of([&] { EXPECT_EQ(streams.switch_stream(), 0U); }), "");
}

TEST_F(Dual_Stream, first_choice_pauses_nothing) {
    streams.set_dual_stream(main.get(), sub.get());
    EXPECT_EQ(streams.get_current_stream_index(), -1);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(streams.enable_main_stream(), -1); }),
              "In Dual Starm set_cursor...\n");
    EXPECT_EQ(streams.get_current_stream_index(), 0);
    EXPECT_EQ(main_relay->value(read_done), 0);
    EXPECT_EQ(sub_relay->value(read_done), 0);
}

TEST_F(Dual_Stream, enabling_the_current_stream_does_nothing) {
    start_with_main();
    EXPECT_EQ(output_of([&] { EXPECT_EQ(streams.enable_main_stream(), 0); }), "");
    output_of([&] { streams.enable_sub_stream(); });
    main_relay->take(read_done);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(streams.enable_sub_stream(), 1); }), "");
    EXPECT_EQ(main_relay->value(read_done), 0);
    EXPECT_EQ(sub_relay->value(read_done), 0);
}

TEST_F(Dual_Stream, leaving_a_stream_pauses_it_after_saying_which) {
    start_with_main();
    const std::string printed = output_of([&] { EXPECT_EQ(streams.enable_sub_stream(), 1); });
    EXPECT_EQ(printed.find("In Dual Starm set_cursor...\n"
                           "In Dual Starm set_cursor 0 receive_frame_pause...\n0x"),
              0U)
        << printed;
    EXPECT_EQ(count(printed, "In receive_frame_pause Before Post Transmission (0, 0), "), 1U);
    EXPECT_EQ(count(printed, "In receive_frame_pause After Post Transmission (0, 1), "), 1U);
    EXPECT_EQ(main_relay->value(read_done), 1);
    EXPECT_EQ(sub_relay->value(read_done), 0);
}

TEST_F(Dual_Stream, switching_pauses_main_once_and_reads_from_sub) {
    start_with_main();
    const std::string printed = output_of([&] { EXPECT_EQ(streams.switch_stream(), 1U); });
    EXPECT_EQ(count(printed, "receive_frame_pause...\n"), 1U);
    EXPECT_EQ(streams.get_current_stream_index(), 1);
    EXPECT_EQ(main_relay->values(), (std::vector<int>{0, 1, 0}));

    sub_relay->post(ready);
    Frame frame(4096);
    EXPECT_EQ(streams.receive_frame(frame.get()), 1);
    EXPECT_EQ(sub_relay->values(), (std::vector<int>{0, 1, 1}));
    EXPECT_EQ(main_relay->values(), (std::vector<int>{0, 1, 0}));
    EXPECT_EQ(streams.receive_frame(frame.get()), 0);  // no further frame
}

TEST_F(Dual_Stream, switching_goes_back_and_forth) {
    start_with_main();
    output_of([&] {
        for (const int index : {1, 0, 1, 0}) {
            EXPECT_EQ(streams.switch_stream(), 1U);
            EXPECT_EQ(streams.get_current_stream_index(), index);
        }
    });
}

TEST_F(Dual_Stream, switching_to_an_empty_slot_fails_and_stays) {
    streams.set_dual_stream(main.get(), nullptr);
    output_of([&] { streams.enable_main_stream(); });
    EXPECT_EQ(output_of([&] { EXPECT_EQ(streams.switch_stream(), 0U); }),
              "Stream Index 1 is NULL, switch stream fail.\n");
    EXPECT_EQ(streams.get_current_stream_index(), 0);
    streams.set_dual_stream(nullptr, main.get());
    EXPECT_EQ(output_of([&] { EXPECT_EQ(streams.switch_stream(), 0U); }),
              "Stream Index 0 is NULL, switch stream fail.\n");
    EXPECT_EQ(streams.get_current_stream_index(), 1);
}

TEST_F(Dual_Stream, endpoint_in_neither_slot_can_be_read_but_not_switched_from) {
    streams.set_dual_stream(nullptr, sub.get());
    EXPECT_EQ(output_of([&] { EXPECT_EQ(streams.set_cursor(main.get()), -1); }),
              "In Dual Starm set_cursor...\n");
    EXPECT_EQ(streams.get_current_stream_index(), -1);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(streams.switch_stream(), 0U); }), "Can't Get Any Stream\n");
    main_relay->post(ready);
    Frame frame(4096);
    EXPECT_EQ(streams.receive_frame(frame.get()), 1);
    const std::string printed = output_of([&] { streams.enable_sub_stream(); });
    EXPECT_EQ(count(printed, "In Dual Starm set_cursor -1 receive_frame_pause...\n"), 1U);
    EXPECT_EQ(main_relay->value(read_done), 1);
}

TEST_F(Dual_Stream, replacing_the_slots_leaves_the_current_endpoint) {
    start_with_main();
    streams.set_dual_stream(sub.get(), main.get());
    EXPECT_EQ(streams.get_current_stream_index(), 1);
    streams.set_dual_stream(sub.get(), nullptr);
    EXPECT_EQ(streams.get_current_stream_index(), -1);
    EXPECT_EQ(main_relay->value(read_done), 0);
}

TEST_F(Dual_Stream, cursor_may_be_set_to_itself_and_to_none_and_pauses_each_time) {
    start_with_main();
    const std::string printed = output_of([&] {
        streams.set_cursor(main.get());
        streams.set_cursor(nullptr);
    });
    EXPECT_EQ(count(printed, "In Dual Starm set_cursor 0 receive_frame_pause...\n"), 2U);
    EXPECT_EQ(streams.get_current_stream_index(), -1);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(streams.enable_main_stream(), -1); }),
              "In Dual Starm set_cursor...\n");
}

TEST_F(Dual_Stream, same_endpoint_in_both_slots_counts_as_main) {
    streams.set_dual_stream(main.get(), main.get());
    output_of([&] { streams.enable_sub_stream(); });
    EXPECT_EQ(streams.get_current_stream_index(), 0);
}

}  // namespace
