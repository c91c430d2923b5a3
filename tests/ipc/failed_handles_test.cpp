// SPDX-License-Identifier: Apache-2.0
//
// Every operation of every endpoint on handles that could not be opened: no operation crashes,
// none hangs, none reports success that did not happen.
#include <cerrno>
#include <sstream>

#include "support/channel.h"

namespace {

class Failed_Handles : public Channels {
protected:
    template <class Action>
    static std::string quietly(Action action) {
        return output_of(action);
    }
};

TEST_F(Failed_Handles, producer_without_segment_and_semaphores) {
    Frame frame(10);
    quietly([&] {
        ZAV_SHM_Stream_Distributor producer("/shm/MISSING", "/M0", "/M1", "/M2");
        EXPECT_FALSE(producer.distribute_frame(frame.get()));
        EXPECT_EQ(producer.distribute_frame(frame.get(), 128), 0);
        producer.post_transmission();
        producer.wait_transmission();
        EXPECT_FALSE(producer.time_wait_transmission(60'000));
        EXPECT_EQ(errno, EINVAL);
        EXPECT_FALSE(producer.time_wait_receiver_exist(60'000));
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(producer.get_sem_wait_error(), 0);
        EXPECT_EQ(producer.get_sem_value(0), -1);
        producer.get_sem_value();
        producer.start();
        std::ostringstream out;
        out << producer;
        EXPECT_EQ(out.str(), "**************\n/shm/MISSING\n**************\n");
    });
}

TEST_F(Failed_Handles, each_missing_semaphore_is_said_once) {
    make_slot(100);
    EXPECT_EQ(quietly([] {
                  ZAV_SHM_Stream_Distributor("/shm/CAM_LOOP_0_0", "/M0", "/M1", "/M2");
                  ZAV_SHM_Stream_Receiver("/shm/CAM_LOOP_0_0", "/M0", "/M1", "/M2");
                  ZAV_SHM_Stream_Receiver("/shm/CAM_LOOP_0_0", "/M0", "/M1");
              }),
              "Open Sem Failed\nOpen Sem Failed\nOpen Sem Failed\nOpen Sem Failed\n"
              "Open Sem Failed\nOpen Sem Failed\nOpen Sem Failed\nOpen Sem Failed\n");
}

TEST_F(Failed_Handles, producer_without_a_segment_never_reports_a_frame) {
    const auto source = make_source();
    const auto names = producer_names();
    ZAV_SHM_Stream_Distributor producer(names.shm_path, names.sem_path_src, names.sem_path_dst,
                                        names.sem_path_exist);
    const Peer relay(names);
    relay.post(2);
    Frame frame(10);
    EXPECT_FALSE(producer.distribute_frame(frame.get()));
    EXPECT_EQ(relay.value(0), 0);
}

TEST_F(Failed_Handles, producer_with_a_failed_mapping_never_reports_a_frame) {
    make_slot(100);
    const auto source = make_source();
    IPC_SHMEMORY::set_root_path("/somewhere/else");
    quietly([&] {
        const auto producer = open_producer();
        const Peer relay(producer_names());
        relay.post(2);
        Frame frame(10);
        EXPECT_FALSE(producer->distribute_frame(frame.get()));
        EXPECT_EQ(relay.value(0), 0);
    });
}

TEST_F(Failed_Handles, consumer_without_segment_and_semaphores) {
    Frame frame(10);
    quietly([&] {
        ZAV_SHM_Stream_Receiver consumer("/shm/MISSING", "/M0", "/M1", "/M2");
        EXPECT_FALSE(consumer.receive_frame(frame.get()));
        EXPECT_EQ(consumer.receive_frame(frame.get(), 128), 0);
        consumer.receive_frame_pause();
        EXPECT_EQ(consumer.change_shm("/shm/ALSO_MISSING"), 1);
        EXPECT_EQ(consumer.change_shm(nullptr), 1);
        consumer.post_transmission();
        consumer.post_transmission_receiver_exist();
        consumer.wait_transmission();
        EXPECT_FALSE(consumer.time_wait_transmission(60'000));
        EXPECT_EQ(consumer.get_sem_up_value(), -1);
        EXPECT_EQ(consumer.get_sem_down_value(), -1);
        consumer.get_sem_value();
        consumer.start();
    });
}

TEST_F(Failed_Handles, consumer_with_a_failed_mapping_says_so_and_copies_nothing) {
    make_slot(100);
    const auto writer = make_writer("PLAYER");
    IPC_SHMEMORY::set_root_path("/somewhere/else");
    std::unique_ptr<ZAV_SHM_Stream_Receiver> consumer;
    quietly([&] { consumer = open_consumer("PLAYER"); });
    writer->post_receiver_read();
    Frame frame(10);
    EXPECT_EQ(quietly([&] { EXPECT_TRUE(consumer->receive_frame(frame.get())); }),
              "Get NULL mem_addr!!!\n");
    EXPECT_TRUE(frame.same_header(Frame(10)));
    quietly([&] { consumer.reset(); });
}

TEST_F(Failed_Handles, relay_endpoints_with_impossible_names) {
    IPC_SHM_SRC_CTRL_INFO names({"A/B", 0, 0});
    quietly([&] {
        Source source(&names);
        Writer writer(&names);
        SHM_Stream_Transmission relay(&source);
        relay.insert_distributor(&writer);
        EXPECT_EQ(relay.transmission_frame(), 0);
        EXPECT_EQ(writer.get_sem_wait_error(), 0);
        EXPECT_EQ(relay.check_receiver_exist(), 0);
        EXPECT_EQ(relay.distribute_frame(), 0);
        source.wait_distributor_write();
        writer.wait_receiver_read();
        relay.delete_distributor(&writer);
        std::ostringstream out;
        out << relay;
    });
}

}  // namespace
