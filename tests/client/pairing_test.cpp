// SPDX-License-Identifier: Apache-2.0
//
// Moving a consumer's client to another producer.
#include "client_fixture.h"

namespace {

class Client_Pairing : public Clients {
protected:
    void SetUp() override {
        Clients::SetUp();
        make_slot(4096, "CAM_LOOP");
        make_slot(4096, "CAM_REC");
        writer = make_writer("PLAYER");
    }
    void TearDown() override {
        writer.reset();
        Clients::TearDown();
    }

    // This request alone is indented by tabs.
    static std::string pair_request(int channel, int stream, const std::string& producer) {
        return "{\n\t\"channel\" : " + std::to_string(channel) +
               ",\n\t\"command\" : \"pair_src\",\n\t\"name\" : \"PLAYER\",\n\t\"pair_name\" : \"" +
               producer + "\",\n\t\"pid\" : " + pid() +
               ",\n\t\"stream\" : " + std::to_string(stream) + ",\n\t\"type\" : \"Receiver\"\n}";
    }

    static void write_slot(Frame& frame, const std::string& producer) {
        const IPC_SHMEMORY segment(producer_names(producer).shm_path.c_str(), O_RDWR);
        std::memcpy(segment.mem_addr, frame.get(), 128);
        std::memcpy(static_cast<unsigned char*>(segment.mem_addr) + 128, frame.payload().data(),
                    frame.payload().size());
    }

    std::unique_ptr<Writer> writer;
};

TEST_F(Client_Pairing, keeps_the_endpoint_and_switches_it_to_the_new_producers_segment) {
    const auto client = consumer();
    client->reg_shm("CAM_LOOP");
    ZAV_SHM_Stream_Receiver* const endpoint = client->get_receiver(0, 0);
    center->requests();
    EXPECT_EQ(output_of([&] { client->pair_src("CAM_REC"); }),
              "Switch Shm to /shm/CAM_REC_0_0\n"
              "Change SHM from /shm/CAM_LOOP_0_0 to /shm/CAM_REC_0_0\n");
    EXPECT_EQ(center->requests(), Texts{pair_request(0, 0, "CAM_REC")});
    EXPECT_EQ(client->get_receiver(0, 0), endpoint);

    Frame sent(100, 9);
    write_slot(sent, "CAM_REC");
    Frame got(4096, 1);
    Peer(consumer_names("PLAYER")).post(0);
    EXPECT_TRUE(endpoint->receive_frame(got.get()));
    EXPECT_TRUE(got.same_header(sent));
    EXPECT_EQ(std::memcmp(got.payload().data(), sent.payload().data(), 100), 0);
}

TEST_F(Client_Pairing,
       asks_for_every_pair_channel_by_channel_and_registers_those_without_endpoint) {
    const auto client = consumer(2, 2);
    std::string printed = output_of([&] { client->pair_src("CAM_REC"); });
    Texts expected;
    for (const auto& [channel, stream] : {std::pair{0, 0}, {0, 1}, {1, 0}, {1, 1}}) {
        expected.push_back(pair_request(channel, stream, "CAM_REC"));
        expected.push_back(consumer_request("register", channel, stream, "CAM_REC"));
    }
    EXPECT_EQ(center->requests(), expected);
    EXPECT_EQ(printed.find("Switch Shm to /shm/CAM_REC_0_0\nCan't Find..., Register it\n"), 0U);
    EXPECT_EQ(output_of([&] {
                  for (const int stream : {0, 1}) {
                      EXPECT_TRUE(client->is_register(0, stream));
                      EXPECT_TRUE(client->is_register(1, stream));
                  }
              }),
              "");
}

TEST_F(Client_Pairing, refused_first_pair_throws_and_leaves_the_producer_as_it_was) {
    const auto client = consumer(1, 2);
    output_of([&] { client->reg_shm("CAM_LOOP"); });
    center->requests();
    for (const char* reply : {R"({"command":"pair_src","status":"invalid_name"})",
                              R"({"command":"register","status":"success"})", "{}", "[]"}) {
        center->answer(reply);
        EXPECT_EQ(output_of([&] {
                      EXPECT_EQ(thrown_by([&] { client->pair_src("CAM_REC"); }), "Invalid Pair");
                  }),
                  "Invalid Pair")
            << reply;
        EXPECT_EQ(center->requests(), Texts{pair_request(0, 0, "CAM_REC")});
    }
    client->reg_shm(0, 0);
    EXPECT_EQ(center->requests(), Texts{consumer_request("register", 0, 0, "CAM_LOOP")});
}

TEST_F(Client_Pairing, refused_later_pair_leaves_the_pairs_before_it_moved) {
    const auto client = consumer(1, 2);
    output_of([&] { client->reg_shm("CAM_LOOP"); });
    center->requests();
    center->answer(channel_reply("pair_src", "CAM_REC", "DST", "PLAYER"));
    center->answer(R"({"command":"pair_src","status":"invalid_name"})");
    EXPECT_EQ(output_of([&] {
                  EXPECT_EQ(thrown_by([&] { client->pair_src("CAM_REC"); }), "Invalid Pair");
              }),
              "Switch Shm to /shm/CAM_REC_0_0\n"
              "Change SHM from /shm/CAM_LOOP_0_0 to /shm/CAM_REC_0_0\nInvalid Pair");
    client->reg_shm(0, 0);
    EXPECT_EQ(center->requests().back(), consumer_request("register", 0, 0, "CAM_REC"));
}

TEST_F(Client_Pairing, pair_without_a_reply_is_passed_over) {
    const auto client = consumer(2, 1);
    output_of([&] { client->reg_shm("CAM_LOOP"); });
    center->requests();
    center->answer("");
    EXPECT_EQ(
        output_of([&] { client->pair_src("CAM_REC"); }).find("Switch Shm to /shm/CAM_REC_1_0"), 0U);
    EXPECT_EQ(center->requests(),
              (Texts{pair_request(0, 0, "CAM_REC"), pair_request(1, 0, "CAM_REC")}));
}

TEST_F(Client_Pairing, without_a_channel_asks_nothing) {
    const auto client = consumer(0, 1);
    EXPECT_EQ(output_of([&] { client->pair_src("CAM_REC"); }), "");
    EXPECT_EQ(center->requests(), Texts{});
}

// To be fed from no producer is answered without any name.
TEST_F(Client_Pairing, answer_without_a_segment_leaves_the_endpoint_without_one) {
    const auto client = consumer();
    client->reg_shm("CAM_LOOP");
    center->answer(R"({"command":"pair_src","status":"success"})");
    EXPECT_EQ(output_of([&] { client->pair_src("NONE"); }),
              "Switch Shm to \nChange SHM from /shm/CAM_LOOP_0_0 to \n");
    Peer(consumer_names("PLAYER")).post(0);
    Frame frame(4096);
    EXPECT_EQ(output_of([&] { client->get_receiver(0, 0)->receive_frame(frame.get()); }),
              "Get NULL mem_addr!!!\n");
}

}  // namespace
