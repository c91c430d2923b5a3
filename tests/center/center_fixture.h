// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "center/shm_center.h"
#include "support/capture.h"
#include "support/kernel_objects.h"
#include "support/raw_client.h"
#include "support/threads.h"

/// Two streams of 4096 and 8192 bytes, three producers and three consumers. SILENT and DEAF have
/// no streams, REMOTE_LOOP has more channels than any producer.
inline constexpr const char* small_configuration = R"({
    "Stream": [{"index": 0, "page_size": 4096}, {"index": 1, "page_size": 8192}],
    "Distributor": [{"name": "CAM_LOOP", "channel": 4, "stream": [0, 1]},
                    {"name": "CAM_REC", "channel": 1, "stream": [0, 1]},
                    {"name": "SILENT", "channel": 1, "stream": []}],
    "Receiver": [{"name": "PLAYER", "channel": 4, "stream": [0, 1]},
                 {"name": "REMOTE_LOOP", "channel": 9, "stream": [0, 1]},
                 {"name": "DEAF", "channel": 1, "stream": []}]
})";

/// A request that every center answers, and that changes nothing.
inline constexpr const char* farewell = R"({"command":"deregister","type":"Distributor"})";

/// What a center prints when it can not deliver a reply.
inline constexpr const char* send_failure = "SHM_Center Send Msg Fail\nSend Fail\n";

/// A message as the control queues carry it.
struct Message_Record {
    long type;
    char text[1028];
};

/// Fixture of tests with a center anywhere: announces what a center of some configuration leaves
/// below /dev/shm, and removes both control queues, which nobody else does.
class Control_Queues : public Kernel_Objects {
protected:
    void TearDown() override;

    static std::unique_ptr<ZAV_SHM_CONFIG> parsed(const std::string& configuration);
    void announce_leftovers_of(const ZAV_SHM_CONFIG& config);

    const Raw_Client client;
    const Raw_Queue requests = Raw_Queue::of_requests();
    const Raw_Queue replies = Raw_Queue::of_replies();
};

/// Fixture of tests with a center in this process, which is shut down at the end.
class Center : public Control_Queues {
protected:
    void TearDown() override;

    /// Builds the center.
    ///
    /// @return what that printed.
    std::string start(const std::string& configuration = small_configuration);
    void stop();

    /// Asks for something harmless and waits for the answer: everything sent before is done.
    void settle() const;

    /// What the center prints during `action` and the requests that it sends.
    std::string output_while(const std::function<void()>& action) const;

    std::unique_ptr<ZAV_SHM_CONFIG> config;
    std::unique_ptr<ZAV_SHM_CENTER> center;
};
