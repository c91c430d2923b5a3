// SPDX-License-Identifier: Apache-2.0
#include <list>
#include <sstream>

#include "support/channel.h"
#include "support/threads.h"

namespace {

using Values = std::vector<int>;

// The start-flag variant of the relay cycle.
class Relay_Variant : public Channels {
protected:
    void SetUp() override {
        Channels::SetUp();
        source = make_source();
        writer = make_writer("PLAYER");
        consumer = std::make_unique<Peer>(consumer_names("PLAYER"));
        relay = std::make_unique<SHM_Stream_Transmission>(source.get());
        relay->insert_distributor(writer.get());
    }
    void TearDown() override {
        relay.reset();
        consumer.reset();
        writer.reset();
        source.reset();
        Channels::TearDown();
    }

    std::string joining_lines(const std::string& values = "(0, 0)") const {
        std::ostringstream address;
        address << static_cast<const void*>(writer.get());
        return "Tell Distributor Has Receiver\nBefore Get Receiver..." + values + "\nIn get list " +
               address.str() + " start transmission\nDistributor " + address.str() +
               " start_transmission\nAfter Get Receiver..." + values + "\n";
    }

    std::unique_ptr<Source> source;
    std::unique_ptr<Writer> writer;
    std::unique_ptr<Peer> consumer;
    std::unique_ptr<SHM_Stream_Transmission> relay;
};

const char* const no_list = "In SHM_Stream_Transmission distribute_frame no list\n";
const char* const too_slow =
    "The Receiver is too slow to read SHM, it may want to pause receive frame, or dead\n";

TEST_F(Relay_Variant, skips_a_writer_whose_consumer_has_not_read) {
    std::list<Writer*> out;
    EXPECT_EQ(output_of([&] { relay->get_start_transmission_distributor_list(out); }), "");
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(writer->get_sem_wait_error(), 1);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(relay->check_receiver_exist(), 0); }), "");
}

TEST_F(Relay_Variant, starts_a_writer_whose_consumer_has_read) {
    consumer->post(1);
    const Peer producer(producer_names());
    producer.post(0);
    std::list<Writer*> out;
    EXPECT_EQ(output_of([&] { relay->get_start_transmission_distributor_list(out); }),
              joining_lines("(1, 0)"));
    EXPECT_EQ(out, std::list<Writer*>{writer.get()});
    EXPECT_TRUE(writer->is_start_transmission());
    EXPECT_EQ(output_of([&] { EXPECT_EQ(relay->check_receiver_exist(), 1); }), "");
}

TEST_F(Relay_Variant, distributing_without_a_started_writer_says_so) {
    EXPECT_EQ(output_of([&] { EXPECT_EQ(relay->distribute_frame(), 0); }), no_list);
    std::list<Writer*> nobody;
    EXPECT_EQ(output_of([&] { EXPECT_EQ(relay->distribute_frame(nobody), 0); }), no_list);
}

TEST_F(Relay_Variant, distributing_posts_and_waits_for_the_started_writer) {
    consumer->post(1);
    output_of([&] { ASSERT_EQ(relay->check_receiver_exist(), 1); });
    consumer->post(1);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(relay->distribute_frame(), 1); }), "");
    EXPECT_EQ(consumer->values(), (Values{1, 0, 0}));
}

TEST_F(Relay_Variant, distributing_to_a_slow_consumer_says_so_and_keeps_it) {
    consumer->post(1);
    const Stopwatch watch;
    EXPECT_EQ(output_of([&] { EXPECT_EQ(relay->distribute_frame(), 1); }),
              joining_lines() + too_slow);
    EXPECT_GE(watch.elapsed(), std::chrono::milliseconds(29));
    EXPECT_TRUE(writer->is_start_transmission());
    EXPECT_EQ(consumer->value(0), 1);
}

TEST_F(Relay_Variant, distributing_to_a_given_list_only_posts) {
    std::list<Writer*> list{writer.get()};
    EXPECT_EQ(output_of([&] { EXPECT_EQ(relay->distribute_frame(list), 1); }), "");
    EXPECT_EQ(consumer->values(), (Values{1, 0, 0}));
}

TEST_F(Relay_Variant, start_without_a_source_does_nothing) {
    SHM_Stream_Transmission lonely;
    EXPECT_EQ(output_of([&] {
                  lonely.start_transmission();
                  relay->start_transmission();
              }),
              "");
}

}  // namespace
