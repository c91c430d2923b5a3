// SPDX-License-Identifier: Apache-2.0
#include "center_fixture.h"

namespace {

std::string ending(const _SHM_DIST_RECV_CONFIG_& record, int channel, int stream) {
    return std::string(record.name) + "_" + std::to_string(channel) + "_" + std::to_string(stream);
}

// What the names of a channel end's three semaphores begin with.
std::string semaphore(const char* side, const _SHM_DIST_RECV_CONFIG_& record, int channel,
                      int stream) {
    return std::string(side) + "_" + record.name + "_SEM_" + std::to_string(channel) + "_" +
           std::to_string(stream);
}

}  // namespace

// ---- both queues ----

void Control_Queues::TearDown() {
    requests.remove();
    replies.remove();
    Kernel_Objects::TearDown();
}

std::unique_ptr<ZAV_SHM_CONFIG> Control_Queues::parsed(const std::string& configuration) {
    auto config = std::make_unique<ZAV_SHM_CONFIG>();
    EXPECT_TRUE(config->parse_config_with_json(configuration)) << config->error();
    EXPECT_EQ(config->verify_config(), 1) << config->error();
    return config;
}

void Control_Queues::announce_leftovers_of(const ZAV_SHM_CONFIG& config) {
    const auto for_each_end = [&config](const auto& records, const auto& action) {
        for (const auto* const record : records) {
            for (int channel = 0; channel < record->channel; ++channel) {
                for (int stream = 0; stream < config.stream_num; ++stream) {
                    action(*record, channel, stream);
                }
            }
        }
    };
    const auto announce_semaphores = [this](const std::string& name) {
        for (const char* number : {"_0", "_1", "_2"}) {
            leaves_semaphore(name + number);
        }
    };
    make_folder("shm");
    make_folder("sem");
    for_each_end(config.distributors(), [&](const auto& record, int channel, int stream) {
        leaves_segment("shm/" + ending(record, channel, stream));
        announce_semaphores(semaphore("SRC", record, channel, stream));
    });
    for_each_end(config.receivers(), [&](const auto& record, int channel, int stream) {
        announce_semaphores(semaphore("DST", record, channel, stream));
    });
}

// ---- a center in this process ----

void Center::TearDown() {
    stop();
    Control_Queues::TearDown();
}

std::string Center::start(const std::string& configuration) {
    config = parsed(configuration);
    std::string printed = output_of([this] {
        ZAV_SHM_CONFIG* borrowed = config.get();
        center = std::make_unique<ZAV_SHM_CENTER>(borrowed);
    });
    announce_leftovers_of(*config);
    return printed;
}

void Center::stop() {
    if (center) {
        center->shutdown();
        center.reset();
    }
    config.reset();
}

void Center::settle() const {
    const Raw_Client barrier(1);  // lives, and asks for nothing itself
    EXPECT_EQ(barrier.ask(R"({"command":"deregister","type":"Distributor"})"),
              "{\n\t\"command\" : \"deregister\",\n\t\"status\" : \"success\"\n}");
}

std::string Center::output_while(const std::function<void()>& action) const {
    return output_of([&] {
        action();
        settle();
    });
}
