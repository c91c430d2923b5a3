// SPDX-License-Identifier: Apache-2.0
//
// Ends with a ring: in the books and on their route pages, and in no relay.
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "center_fixture.h"
#include "control/route_page.h"
#include "ipc/file_lock.h"

namespace {

using Key = Shm_Stream_Transmission_Index;
using zav_shm::Route;
using zav_shm::Route_Page;

class Ring_End : public Center {
protected:
    void SetUp() override {
        Center::SetUp();
        start();
    }

    std::string ask(const std::string& command, const std::string& fields,
                    const std::string& channel = "0") const {
        return client.ask(R"({"command":")" + command + R"(","channel":)" + channel +
                          R"(,"stream":0,)" + fields + "}");
    }

    std::string join(const std::string& producer, const std::string& more = "") const {
        return ask("register", R"("type":"Receiver","name":"PLAYER","ring":true,"pair_name":")" +
                                   producer + "\"" + more);
    }

    std::string pair(const std::string& producer, const std::string& channel = "0") const {
        std::string reply;
        static_cast<void>(output_while([&] {
            reply = ask("pair_src",
                        R"("type":"Receiver","name":"PLAYER","pair_name":")" + producer + "\"",
                        channel);
        }));
        return field_of(reply, "status");
    }

    static std::optional<Route> route() { return zav_shm::read_route(page); }

    int relayed_by(const std::string& producer) const {
        return center->manager()->get_transmission(Key{producer, 0, 0})->get_distributor_num();
    }

    static constexpr const char* folder = "/dev/shm/shm/rings";
    static constexpr const char* page = "/dev/shm/shm/rings/PLAYER_0_0.route";
};

TEST_F(Ring_End, consumer_is_in_the_books_and_in_no_relay) {
    const std::string reply = join("CAM_LOOP");
    EXPECT_EQ(field_of(reply, "status"), "success");
    EXPECT_EQ(field_of(reply, "shm_path"), "/shm/CAM_LOOP_0_0");
    EXPECT_NE(reply.find("\"ring\" : true"), std::string::npos) << reply;
    EXPECT_EQ(relayed_by("CAM_LOOP"), 0);
    ASSERT_TRUE(route());
    EXPECT_EQ(route()->producer, "CAM_LOOP");
    EXPECT_EQ(route()->source, Route_Page::unknown);
    const auto known = center->ring_consumers()->snapshot();
    ASSERT_EQ(known.size(), 1U);
    EXPECT_EQ(known[0].name, "PLAYER");
    EXPECT_EQ(known[0].producer, "CAM_LOOP");
    EXPECT_EQ(known[0].pids, std::vector<long>{client.pid()});
}

TEST_F(Ring_End, consumer_is_refused_as_every_other) {
    EXPECT_EQ(field_of(join("NOBODY"), "reason"), "Can't Find Channel 0, Stream 0 Receiver");
    EXPECT_EQ(field_of(ask("register",
                           R"("type":"Receiver","name":"PLAYER","ring":true,)"
                           R"("pair_name":"CAM_LOOP")",
                           "4"),
                       "reason"),
              "Can't Find Channel 4, Stream 0 Receiver");
    EXPECT_EQ(field_of(ask("register",
                           R"("type":"Receiver","name":"PLAYER","ring":true,)"
                           R"("pair_name":"CAM_LOOP")",
                           "-1"),
                       "reason"),
              "Can't Find Channel -1, Stream 0 Receiver")
        << "there is no such ring";
    EXPECT_FALSE(route());
}

TEST_F(Ring_End, producer_is_told_how_large_its_ring_may_be) {
    const std::string fields = R"("type":"Distributor","name":"CAM_LOOP","ring":true)";
    const std::string reply = ask("register", fields);
    EXPECT_NE(reply.find("\"history_bytes\" : 8192"), std::string::npos) << reply;
    EXPECT_NE(reply.find("\"page_size\" : 4096"), std::string::npos) << reply;
    EXPECT_EQ(ask("register", R"("type":"Distributor","name":"CAM_LOOP")").find("page_size"),
              std::string::npos);
}

TEST_F(Ring_End, consumer_follows_whoever_pairs_it_and_stays_out_of_the_relays) {
    join("CAM_LOOP");
    const std::uint64_t serial = route()->serial;
    EXPECT_EQ(pair("CAM_REC"), "success");
    EXPECT_EQ(route()->producer, "CAM_REC");
    EXPECT_NE(route()->serial, serial);
    EXPECT_EQ(relayed_by("CAM_LOOP") + relayed_by("CAM_REC"), 0);
    EXPECT_EQ(pair("NOBODY"), "invalid_name");
    EXPECT_EQ(route()->producer, "CAM_REC");
}

// What a raw client is answered stays; what runs is not interrupted for it.
TEST_F(Ring_End, consumer_stays_with_its_producer_when_the_other_has_no_such_channel) {
    ask("register", R"("type":"Receiver","name":"PLAYER","ring":true,"pair_name":"CAM_LOOP")", "1");
    EXPECT_EQ(pair("CAM_REC", "1"), "success");
    EXPECT_EQ(zav_shm::read_route("/dev/shm/shm/rings/PLAYER_1_0.route")->producer, "CAM_LOOP");
}

TEST_F(Ring_End, consumer_that_was_in_a_relay_leaves_it) {
    ask("register", R"("type":"Receiver","name":"PLAYER","pair_name":"CAM_LOOP")");
    EXPECT_EQ(relayed_by("CAM_LOOP"), 1);
    join("CAM_REC");
    EXPECT_EQ(relayed_by("CAM_LOOP"), 0);
}

TEST_F(Ring_End, consumer_that_leaves_takes_its_page_along) {
    join("CAM_LOOP");
    ask("deregister", R"("type":"Receiver","name":"PLAYER")");
    EXPECT_TRUE(route()) << "another process's leave, from a relay";
    ask("deregister", R"("type":"Receiver","name":"PLAYER","ring":true)");
    EXPECT_FALSE(std::filesystem::exists(page));
    EXPECT_TRUE(center->ring_consumers()->snapshot().empty());
}

TEST_F(Ring_End, page_says_when_the_producer_begins_to_use_its_slot_or_ring) {
    join("CAM_LOOP");
    ask("register", R"("type":"Distributor","name":"CAM_LOOP")");
    EXPECT_EQ(route()->source, Route_Page::slot);
    ask("register", R"("type":"Distributor","name":"CAM_LOOP","ring":true)");
    EXPECT_EQ(route()->source, Route_Page::ring);
    ask("deregister", R"("type":"Distributor","name":"CAM_LOOP","ring":true)");
    EXPECT_EQ(route()->source, Route_Page::unknown);
    EXPECT_EQ(route()->producer, "CAM_LOOP");
}

TEST_F(Ring_End, consumer_may_be_in_a_relay_too_but_one_process_only) {
    std::filesystem::create_directories(folder);
    const std::string fields =
        R"("type":"Receiver","name":"PLAYER","pair_name":"CAM_LOOP","relay":true,"card":)";
    const int card =
        open((std::string(folder) + "/first").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_TRUE(zav_shm::take_file_lock(card));
    EXPECT_EQ(field_of(ask("register", fields + "\"first\""), "status"), "success");
    EXPECT_EQ(relayed_by("CAM_LOOP"), 1);
    EXPECT_EQ(field_of(ask("register", fields + "\"second\""), "reason"),
              "PLAYER is fed through its relay to process " + std::to_string(client.pid()));
    close(card);
    EXPECT_EQ(field_of(ask("register", fields + "\"second\""), "status"), "success")
        << "the first one is gone";
    ask("deregister", R"("type":"Receiver","name":"PLAYER","ring":true,"card":"second")");
    EXPECT_EQ(relayed_by("CAM_LOOP"), 0);
    std::filesystem::remove(std::string(folder) + "/first");
}

// A raw client that pairs itself is in the relay, as ever, also when a ring's consumer of the same
// name was killed.
TEST_F(Ring_End, pairing_is_as_ever_once_the_process_that_read_the_ring_is_gone) {
    join("CAM_LOOP", R"(,"card":"gone")");
    std::ofstream(std::string(folder) + "/gone") << "nobody has it locked";
    EXPECT_EQ(pair("CAM_REC"), "success");
    EXPECT_EQ(relayed_by("CAM_REC"), 1);
    EXPECT_FALSE(route());
    std::filesystem::remove(std::string(folder) + "/gone");
}

// Between its registration and its card a process of another PID namespace shows no sign of life.
TEST_F(Ring_End, consumer_that_is_gone_is_forgotten_at_the_second_look) {
    join("CAM_LOOP", R"(,"card":"gone")");
    const std::string card = std::string(folder) + "/gone";
    center->ring_consumers()->forget_gone();
    center->ring_consumers()->forget_gone();
    EXPECT_TRUE(route());  // its process, this one, lives
    std::ofstream(card) << "nobody has it locked";
    center->ring_consumers()->forget_gone();
    EXPECT_TRUE(route());
    std::filesystem::remove(card);
    center->ring_consumers()->forget_gone();  // alive again
    std::ofstream(card) << "nobody has it locked";
    center->ring_consumers()->forget_gone();
    EXPECT_TRUE(route());
    center->ring_consumers()->forget_gone();
    EXPECT_FALSE(route());
    EXPECT_TRUE(center->ring_consumers()->snapshot().empty());
    std::filesystem::remove(card);
}

TEST_F(Ring_End, pages_of_an_earlier_center_are_removed) {
    join("CAM_LOOP");
    stop();
    EXPECT_FALSE(std::filesystem::exists(page));
    std::ofstream(page) << "left";
    std::ofstream(std::string(page) + ".new") << "half";
    start();
    EXPECT_FALSE(std::filesystem::exists(page));
    EXPECT_FALSE(std::filesystem::exists(std::string(page) + ".new"));
}

TEST(Route_Page, is_read_only_when_it_is_whole_and_right) {
    const std::string path = testing::TempDir() + "route_page_test";
    EXPECT_FALSE(zav_shm::read_route(path));
    ASSERT_TRUE(zav_shm::write_route(path, {"CAM_LOOP", Route_Page::slot, 7}));
    EXPECT_EQ(zav_shm::read_route(path)->producer, "CAM_LOOP");
    EXPECT_EQ(zav_shm::read_route(path)->serial, 7U);
    EXPECT_FALSE(zav_shm::write_route(path, {std::string(32, 'x'), Route_Page::slot, 7}));
    const auto damaged = [&path](std::size_t offset, char value) {
        std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(static_cast<std::streamoff>(offset));
        file.put(value);
        file.close();
        const bool is_read = zav_shm::read_route(path).has_value();
        EXPECT_TRUE(zav_shm::write_route(path, {std::string(31, 'x'), Route_Page::ring, 7}));
        return !is_read;
    };
    EXPECT_TRUE(damaged(0, 'X'));
    EXPECT_TRUE(damaged(4, 2));
    EXPECT_TRUE(damaged(6, 3));
    EXPECT_TRUE(damaged(8, 0));
    EXPECT_TRUE(damaged(47, 'x'));
    EXPECT_TRUE(damaged(64, 'x')) << "too long";
    std::filesystem::remove(path);
}

}  // namespace
