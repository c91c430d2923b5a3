// SPDX-License-Identifier: Apache-2.0
#include "frames_fixture.h"
#include "support/child_process.h"

namespace {

using Static_Storage = Control_Queues;

TEST_F(Static_Storage, holds_objects_that_work_from_the_first_moment_to_the_last) {
    Child_Process program({ZAV_TEST_STATIC_STORAGE});
    const std::string printed = program.read_rest();
    EXPECT_EQ(program.wait(), 0);
    EXPECT_NE(printed.find("\ntaken\n"), std::string::npos) << printed;
    EXPECT_NE(printed.find("\nclosed\n"), std::string::npos) << printed;
    remove_histories();
    announce_leftovers_of(*parsed(R"({
        "Stream": [{"index": 0, "page_size": 4096}],
        "Distributor": [{"name": "CAM_LOOP", "channel": 1, "stream": [0]},
                        {"name": "CAM_REC", "channel": 1, "stream": [0]}],
        "Receiver": [{"name": "PLAYER", "channel": 1, "stream": [0]}]
    })"));
}

}  // namespace
