// SPDX-License-Identifier: Apache-2.0
//
// zav_test_static_storage
//
// A center, a client of the base layer, a publisher and a subscriber as one object of static
// storage: all of them work before the library's own initialisers have run, as this file's come
// first, and take leave after its own objects of static storage are destroyed. Prints "taken" when
// a frame has come, and "closed" at the end of everything.
//
// Nothing here may include <iostream>: that would make std::cout for the library, too.
#include <sys/stat.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <span>

#include "center/shm_center.h"
#include "client/shm_client_distributor.h"
#include "frame/frame_publisher.h"
#include "frame/frame_subscriber.h"

using namespace std::chrono_literals;

namespace {

constexpr const char* configuration = R"({
    "Stream": [{"index": 0, "page_size": 4096}],
    "Distributor": [{"name": "CAM_LOOP", "channel": 1, "stream": [0]},
                    {"name": "CAM_REC", "channel": 1, "stream": [0]}],
    "Receiver": [{"name": "PLAYER", "channel": 1, "stream": [0]}]
})";

class Host {
public:
    Host() : borrowed_(&config_), center_((parse(config_), borrowed_)) {}
    ~Host() {
        center_.shutdown();
        std::puts("closed");
    }
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

private:
    static void parse(ZAV_SHM_CONFIG& config) {
        config.parse_config_with_json(configuration);
        config.verify_config();
    }

    ZAV_SHM_CONFIG config_;
    ZAV_SHM_CONFIG* borrowed_;
    ZAV_SHM_CENTER center_;
};

class Device {
public:
    Device() {
        const bool open = camera_.open() && player_.open();
        const auto end = std::chrono::steady_clock::now() + 30s;
        zav_shm::Received_Frame frame;
        while (open && !taken_ && std::chrono::steady_clock::now() < end) {
            camera_.publish(std::as_bytes(std::span(payload_)));
            taken_ = player_.receive(frame, 100ms) == zav_shm::Receive_Status::frame &&
                     frame.verified && frame.length == payload_.size();
        }
    }

    bool has_taken_a_frame() const { return taken_; }

private:
    const Host host_;  // the last to go: the clients take leave of it
    const ZAV_SHM_CLIENT_DISTRIBUTOR other_camera_{"CAM_REC", true};
    ZAV_SHM_Frame_Publisher camera_{{.name = "CAM_LOOP"}};
    ZAV_SHM_Frame_Subscriber player_{{.name = "PLAYER", .producer = "CAM_LOOP"}};
    const std::array<char, 100> payload_{"payload"};
    bool taken_ = false;
};

Device device;

}  // namespace

int main() {
    std::puts(device.has_taken_a_frame() ? "taken" : "not taken");
    return device.has_taken_a_frame() ? EXIT_SUCCESS : EXIT_FAILURE;
}
