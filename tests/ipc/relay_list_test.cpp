// SPDX-License-Identifier: Apache-2.0
#include <sstream>
#include <thread>

#include "support/channel.h"
#include "support/threads.h"

namespace {

using Values = std::vector<int>;

class Relay_List : public Channels {
protected:
    SHM_Stream_Transmission relay;
};

TEST_F(Relay_List, counts_its_writers) {
    const auto one = make_writer("PLAYER");
    const auto two = make_writer("RECODER");
    EXPECT_EQ(relay.get_distributor_num(), 0);
    relay.insert_distributor(one.get());
    relay.insert_distributor(two.get());
    EXPECT_EQ(relay.get_distributor_num(), 2);
    relay.delete_distributor(one.get());
    EXPECT_EQ(relay.get_distributor_num(), 1);
    relay.delete_distributor(two.get());
    EXPECT_EQ(relay.get_distributor_num(), 0);
}

TEST_F(Relay_List, inserting_resets_the_writer) {
    const auto writer = make_writer("PLAYER");
    const Peer consumer(consumer_names("PLAYER"));
    consumer.post(0);
    consumer.post(2);
    EXPECT_FALSE(writer->time_wait_receiver_read(1));
    relay.insert_distributor(writer.get());
    EXPECT_EQ(consumer.values(), (Values{0, 0, 0}));
    EXPECT_EQ(writer->get_sem_wait_error(), 0);
}

TEST_F(Relay_List, inserting_a_writer_with_listed_names_prints_and_keeps_the_count) {
    const auto listed = make_writer("PLAYER");
    relay.insert_distributor(listed.get());
    EXPECT_FALSE(listed->time_wait_receiver_read(1));
    const auto same = make_writer("PLAYER");  // replaces the names: `listed` is an orphan now
    const Peer consumer(consumer_names("PLAYER"));
    consumer.post(2);
    EXPECT_EQ(output_of([&] { relay.insert_distributor(same.get()); }),
              "Duplicate Distributor...\n");
    EXPECT_EQ(relay.get_distributor_num(), 1);
    EXPECT_EQ(listed->get_sem_wait_error(), 0);  // the listed one is reset,
    EXPECT_EQ(consumer.value(2), 1);             // not the one that was offered
    EXPECT_EQ(output_of([&] { relay.insert_distributor(listed.get()); }),
              "Duplicate Distributor...\n");
    EXPECT_EQ(relay.get_distributor_num(), 1);
}

TEST_F(Relay_List, duplicate_check_resets_the_first_listed_writer_that_matches) {
    const auto one = make_writer("PLAYER");
    const auto two = make_writer("RECODER");
    relay.insert_distributor(one.get());
    EXPECT_FALSE(relay.duplicate_distributor(two.get()));
    relay.insert_distributor(two.get());
    EXPECT_FALSE(one->time_wait_receiver_read(1));
    EXPECT_FALSE(two->time_wait_receiver_read(1));
    EXPECT_EQ(output_of([&] { EXPECT_TRUE(relay.duplicate_distributor(two.get())); }), "");
    EXPECT_EQ(one->get_sem_wait_error(), 1);
    EXPECT_EQ(two->get_sem_wait_error(), 0);
}

TEST_F(Relay_List, deleting_resets_the_writer_whether_or_not_it_was_listed) {
    const auto listed = make_writer("PLAYER");
    const auto unknown = make_writer("RECODER");
    relay.insert_distributor(listed.get());
    for (Writer* writer : {listed.get(), unknown.get()}) {
        EXPECT_FALSE(writer->time_wait_receiver_read(1));
        relay.delete_distributor(writer);
        EXPECT_EQ(writer->get_sem_wait_error(), 0);
    }
    EXPECT_EQ(relay.get_distributor_num(), 0);
}

TEST_F(Relay_List, ignores_null_writers) {
    EXPECT_EQ(output_of([&] {
                  relay.insert_distributor(nullptr);
                  relay.delete_distributor(nullptr);
                  EXPECT_FALSE(relay.duplicate_distributor(nullptr));
              }),
              "");
    EXPECT_EQ(relay.get_distributor_num(), 0);
}

TEST_F(Relay_List, changes_while_the_relay_thread_runs) {
    const auto source = make_source();
    const auto steady = make_writer("PLAYER");
    const auto coming_and_going = make_writer("RECODER");
    SHM_Stream_Transmission busy(source.get());
    ASSERT_EQ(busy.run(fun_transmission_stream), 0);
    busy.insert_distributor(steady.get());
    ASSERT_TRUE(becomes_true([&] { return steady->get_sem_wait_error() > 0; }));
    for (int i = 0; i < 10; ++i) {
        busy.insert_distributor(coming_and_going.get());
        EXPECT_EQ(busy.get_distributor_num(), 2);
        busy.delete_distributor(coming_and_going.get());
        EXPECT_EQ(busy.get_distributor_num(), 1);
    }
}

TEST_F(Relay_List, dump_has_a_line_for_the_source_and_for_each_writer) {
    const auto source = make_source();
    const auto one = make_writer("PLAYER");
    SHM_Stream_Transmission dumped(source.get());
    dumped.insert_distributor(one.get());
    std::ostringstream out;
    out << dumped;
    EXPECT_EQ(out.str(), "\n\n");  // neither end has what the dump form shows
}

}  // namespace
