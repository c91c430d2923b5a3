// SPDX-License-Identifier: Apache-2.0
#include "frame/reply_judge.h"

#include <gtest/gtest.h>

#include <string>

#include "control/json_text.h"

using zav_shm::is_reply_to;

namespace {

Json::Value request(const char* command, const char* type = "Receiver",
                    const char* pair_name = "CAM_LOOP") {
    Json::Value made;
    made["command"] = command;
    made["type"] = type;
    made["name"] = "PLAYER";
    if (*pair_name != '\0') {
        made["pair_name"] = pair_name;
    }
    made["channel"] = 1;
    made["stream"] = 0;
    return made;
}

struct Names {
    std::string segment = "/shm/CAM_LOOP_1_0";
    std::string src = "/DST_PLAYER_SEM_1_0_0";
    std::string dst = "/DST_PLAYER_SEM_1_0_1";
    std::string exist = "/DST_PLAYER_SEM_1_0_2";
};

Json::Value granted(const char* command, const Names& names) {
    Json::Value reply;
    reply["command"] = command;
    reply["status"] = "success";
    reply["shm_path"] = names.segment;
    reply["sem_path_src"] = names.src;
    reply["sem_path_dst"] = names.dst;
    reply["sem_path_exist"] = names.exist;
    return reply;
}

Json::Value refused(const char* command, const std::string& reason) {
    Json::Value reply;
    reply["command"] = command;
    reply["status"] = "fail";
    reply["reason"] = reason;
    return reply;
}

TEST(Reply, to_a_registration_or_pairing_has_all_four_names_of_it) {
    for (const char* command : {"register", "pair_src"}) {
        EXPECT_TRUE(is_reply_to(request(command), granted(command, {}))) << command;
        for (const Names& other :
             {Names{.segment = "/shm/CAM_LOOP_0_0"}, Names{.segment = "/shm/CAM_LOOP_1_1"},
              Names{.segment = "/shm/CAM_REC_1_0"}, Names{.segment = "/shm/MY_CAM_LOOP_1_0"},
              Names{.src = "/DST_OTHER_SEM_1_0_0"}, Names{.src = "/DST_PLAYER_SEM_0_0_0"},
              Names{.dst = "/DST_PLAYER_SEM_1_1_1"}, Names{.dst = "/SRC_PLAYER_SEM_1_0_1"},
              Names{.exist = "/DST_OTHER_SEM_1_0_2"}, Names{.exist = "/DST_PLAYER_SEM_1_0_1"}}) {
            EXPECT_FALSE(is_reply_to(request(command), granted(command, other)))
                << command << ' ' << other.segment << other.src << other.dst << other.exist;
        }
    }
}

TEST(Reply, to_a_producer_has_the_names_of_its_own_side) {
    const Names own{.segment = "/video/PLAYER_1_0",
                    .src = "/SRC_PLAYER_SEM_1_0_0",
                    .dst = "/SRC_PLAYER_SEM_1_0_1",
                    .exist = "/SRC_PLAYER_SEM_1_0_2"};
    const auto registering = request("register", "Distributor", "");
    EXPECT_TRUE(is_reply_to(registering, granted("register", own)));
    EXPECT_FALSE(is_reply_to(registering, granted("register", {})));
}

TEST(Reply, whose_names_are_cut_belongs_all_the_same) {
    Json::Value long_name = request("register");
    const std::string name(70, 'x');
    long_name["name"] = long_name["pair_name"] = name;
    const auto cut = [](const std::string& text) { return text.substr(0, 63); };
    const Names names{.segment = cut("/shm/" + name + "_1_0"),
                      .src = cut("/DST_" + name + "_SEM_1_0_0"),
                      .dst = cut("/DST_" + name + "_SEM_1_0_1"),
                      .exist = cut("/DST_" + name + "_SEM_1_0_2")};
    EXPECT_TRUE(is_reply_to(long_name, granted("register", names)));
}

TEST(Reply, that_leaves_names_out_contradicts_nothing) {
    EXPECT_TRUE(is_reply_to(request("register"), refused("register", "")));
    EXPECT_TRUE(is_reply_to(request("deregister"), refused("deregister", "")));
    EXPECT_FALSE(is_reply_to(request("register"), refused("deregister", "")));
    EXPECT_FALSE(is_reply_to(request("register"), Json::Value(Json::objectValue)));
}

TEST(Reply, that_refuses_names_what_was_asked_for) {
    const auto is_refusal_of = [](const char* command, const char* reason) {
        return is_reply_to(request(command), refused(command, reason));
    };
    EXPECT_TRUE(is_refusal_of("register", "Can't Find Channel 1, Stream 0 Receiver"));
    EXPECT_FALSE(is_refusal_of("register", "Can't Find Channel 9, Stream 0 Receiver"));
    EXPECT_FALSE(is_refusal_of("register", "Can't Find Channel 1, Stream 0 Distributor"));
    EXPECT_TRUE(is_refusal_of("pair_src", "Can't Find Shm Name PLAYER"));
    EXPECT_TRUE(is_refusal_of("pair_src", "Can't Find Shm Pair Name CAM_LOOP"));
    EXPECT_FALSE(is_refusal_of("pair_src", "Can't Find Shm Pair Name CAM_REC"));
    EXPECT_FALSE(is_refusal_of("pair_src", "Can't Find Shm Name RECORDER"));
    EXPECT_TRUE(is_refusal_of("query_shm", "Can't Find Shm Name PLAYER Receiver"));
    EXPECT_FALSE(is_refusal_of("query_shm", "Can't Find Shm Name PLAYER Distributor"));
    EXPECT_TRUE(is_refusal_of("register", "for a reason that no center has today"));
}

TEST(Reply, to_a_query_is_about_its_name) {
    Json::Value reply = refused("query_shm", "");
    reply["name"] = "PLAYER";
    reply["type"] = "Receiver";
    EXPECT_TRUE(is_reply_to(request("query_shm"), reply));
    reply["type"] = "Distributor";
    EXPECT_FALSE(is_reply_to(request("query_shm"), reply));
    reply["type"] = "Receiver";
    reply["name"] = "RECORDER";
    EXPECT_FALSE(is_reply_to(request("query_shm"), reply));
}

}  // namespace
