// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "client/shm_client_distributor.h"
#include "client/shm_client_receiver.h"
#include "fake_center.h"
#include "support/channel.h"

/// Fixture of tests that look at a client's requests on the wire, and decide on the replies. The
/// relay ends that a center would have made are made by the test, where frames are to flow.
class Clients : public Channels {
protected:
    using Texts = std::vector<std::string>;

    void SetUp() override {
        Channels::SetUp();
        center.emplace();
    }
    void TearDown() override {
        center.reset();
        EXPECT_EQ(Raw_Queue::of_requests().messages(), 0U);
        EXPECT_EQ(Raw_Queue::of_replies().messages(), 0U);
        Raw_Queue::of_requests().remove();
        Raw_Queue::of_replies().remove();
        Channels::TearDown();
    }

    /// Clients that have queried a fake center of so many channels and streams; quiet, and with
    /// their query no longer among the noted requests.
    std::unique_ptr<ZAV_SHM_CLIENT_DISTRIBUTOR> producer(int channels = 1, int streams = 1) {
        configure(channels, streams);
        std::unique_ptr<ZAV_SHM_CLIENT_DISTRIBUTOR> client;
        output_of(
            [&] { client = std::make_unique<ZAV_SHM_CLIENT_DISTRIBUTOR>("CAM_LOOP", false); });
        center->requests();
        return client;
    }
    std::unique_ptr<ZAV_SHM_CLIENT_RECEIVER> consumer(int channels = 1, int streams = 1) {
        configure(channels, streams);
        auto client = std::make_unique<ZAV_SHM_CLIENT_RECEIVER>("PLAYER");
        center->requests();
        return client;
    }

    /// What a client throws; "nothing" when it throws nothing.
    static std::string thrown_by(const std::function<void()>& action) {
        try {
            action();
        } catch (const char* text) {
            return text;
        }
        return "nothing";
    }

    /// The literal texts that clients CAM_LOOP and PLAYER of this process send.
    static std::string producer_request(const std::string& command, int channel, int stream) {
        return R"({"channel":)" + std::to_string(channel) + R"(,"command":")" + command +
               R"(","name":"CAM_LOOP","pid":)" + pid() + R"(,"stream":)" + std::to_string(stream) +
               R"(,"type":"Distributor"})";
    }
    static std::string consumer_request(const std::string& command, int channel, int stream,
                                        const std::string& pair_name = "") {
        const std::string pair = pair_name.empty() ? "" : R"("pair_name":")" + pair_name + "\",";
        return R"({"channel":)" + std::to_string(channel) + R"(,"command":")" + command +
               R"(","name":"PLAYER",)" + pair + R"("pid":)" + pid() + R"(,"stream":)" +
               std::to_string(stream) + R"(,"type":"Receiver"})";
    }

    /// As the library's stream output writes a request.
    static std::string tabbed_producer_request(const std::string& command, int channel,
                                               int stream) {
        return "{\n\t\"channel\" : " + std::to_string(channel) + ",\n\t\"command\" : \"" + command +
               "\",\n\t\"name\" : \"CAM_LOOP\",\n\t\"pid\" : " + pid() +
               ",\n\t\"stream\" : " + std::to_string(stream) + ",\n\t\"type\" : \"Distributor\"\n}";
    }

    static std::string pid() { return std::to_string(getpid()); }

    std::optional<Fake_Center> center;

private:
    void configure(int channels, int streams) {
        std::vector<int> page_sizes;
        page_sizes.reserve(static_cast<std::size_t>(streams));
        for (int stream = 0; stream < streams; ++stream) {
            page_sizes.push_back(4096 * (stream + 1));
        }
        center->configure(channels, page_sizes);
    }
};
