// SPDX-License-Identifier: Apache-2.0
//
// Our own: the daemon as it is installed, ZAV_SHM_Frame_Publisher and ZAV_SHM_Frame_Subscriber,
// with copies or in place. The history is the same for both. Where the load's flow is to lose
// nothing, the publisher is paced; otherwise it waits for nobody.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "bench/compare/transports.h"
#include "bench/silence.h"
#include "frame/frame_publisher.h"
#include "frame/frame_subscriber.h"

namespace zav_shm::bench::compare {

namespace {

using namespace std::chrono_literals;

constexpr const char* configuration_file = "/tmp/zav_shm.json";
constexpr const char* center_page = "/dev/shm/shm/center_page";
constexpr const char* producer_name = "CAMERA";

// Of each stream, whatever its frames: the configuration of a recorder.
constexpr std::size_t history_bytes_least = std::size_t{2} << 20;

std::string consumer_name(int consumer) { return "CONSUMER" + std::to_string(consumer); }

void write_configuration(const Load& load) {
    std::ofstream file(configuration_file);
    const std::string streams = load.streams == 1 ? "[0]" : "[0, 1]";
    const auto name_all = [&](const std::string& name) {
        file << R"({ "name": ")" << name << R"(", "channel": )" << load.cameras << R"(, "stream": )"
             << streams << " }";
    };
    file << R"({ "System": { "kick_idle": true }, "Stream": [)";
    for (int stream = 0; stream < load.streams; ++stream) {
        file << (stream == 0 ? "" : ",") << R"({ "index": )" << stream << R"(, "page_size": )"
             << load.payload_bytes << " }";
    }
    file << R"(], "Distributor": [)";
    name_all(producer_name);
    file << R"(], "Receiver": [)";
    for (int consumer = 0; consumer < load.consumers; ++consumer) {
        file << (consumer == 0 ? "" : ",");
        name_all(consumer_name(consumer));
    }
    file << "] }\n";
}

// A client that was not refused goes on by itself when the center is busy.
void check(const Opened& opened) {
    if (opened.refused) {
        throw std::runtime_error(opened.reason);
    }
}

ZAV_SHM_Frame_Publisher::Options publisher_options(const Channel& channel) {
    return {
        .name = producer_name,
        .channel = channel.camera,
        .stream = channel.stream,
        .history_bytes = std::max(history_bytes_least, queue_frames * channel.load.payload_bytes),
        .paced = channel.load.flow == Flow::wait,
        .pace_limit = 10s};
}

class Copying_Publisher : public Publisher {
public:
    explicit Copying_Publisher(const Channel& channel)
        : payload_(channel.load.payload_bytes), publisher_(publisher_options(channel)) {
        check(publisher_.open());
    }

    std::span<std::byte> room() override { return payload_; }
    void publish() override { publisher_.publish(payload_); }

private:
    std::vector<std::byte> payload_;
    ZAV_SHM_Frame_Publisher publisher_;
};

class Lending_Publisher : public Publisher {
public:
    explicit Lending_Publisher(const Channel& channel)
        : payload_bytes_(channel.load.payload_bytes), publisher_(publisher_options(channel)) {
        check(publisher_.open());
    }

    std::span<std::byte> room() override { return publisher_.loan(payload_bytes_); }
    void publish() override { publisher_.commit(payload_bytes_); }

private:
    const std::size_t payload_bytes_;
    ZAV_SHM_Frame_Publisher publisher_;
};

class Frame_Consumer : public Subscriber {
public:
    Frame_Consumer(const Channel& channel, int consumer, bool in_place)
        : in_place_(in_place),
          subscriber_({.name = consumer_name(consumer),
                       .producer = producer_name,
                       .channel = channel.camera,
                       .stream = channel.stream,
                       .overflow = Overflow_Policy::drop_oldest}) {
        check(subscriber_.open());
    }

    void serve(Frame_Reader& reader) override {
        bool goes_on = true;
        while (goes_on && in_place_ &&
               subscriber_.receive_view(view_, idle_time) == Receive_Status::frame) {
            reader.read(view_.payload());
            goes_on = reader.judged(view_.is_whole());
        }
        while (goes_on && !in_place_ &&
               subscriber_.receive(frame_, idle_time) == Receive_Status::frame) {
            reader.read(frame_.payload());
            goes_on = reader.judged(true);
        }
    }

private:
    const bool in_place_;
    Received_Frame frame_;
    Frame_View view_;
    ZAV_SHM_Frame_Subscriber subscriber_;
};

class Zav_Shm_Transport : public Transport {
public:
    // The daemon is opened at once: the private folder may hide where it was built.
    explicit Zav_Shm_Transport(bool in_place)
        : in_place_(in_place), daemon_(open(ZAV_SHM_CENTERD, O_PATH | O_CLOEXEC)) {}
    ~Zav_Shm_Transport() override { close(daemon_); }
    Zav_Shm_Transport(const Zav_Shm_Transport&) = delete;
    Zav_Shm_Transport& operator=(const Zav_Shm_Transport&) = delete;

    std::string name() const override { return in_place_ ? "zav_shm in place" : "zav_shm"; }
    std::string copies() const override { return in_place_ ? "0" : "2"; }
    bool has_broker() const override { return true; }

    int run_broker(const Load& load) const override {
        write_configuration(load);
        silence_standard_output();
        std::array<std::string, 4> texts{"zav-shm-centerd", "--clean", "--config",
                                         configuration_file};
        std::array<char*, 5> arguments{texts[0].data(), texts[1].data(), texts[2].data(),
                                       texts[3].data(), nullptr};
        fexecve(daemon_, arguments.data(), environ);
        std::perror(ZAV_SHM_CENTERD);
        return EXIT_FAILURE;
    }

    // The daemon writes it when it serves, and removes it when it ends.
    bool broker_is_ready() const override { return access(center_page, F_OK) == 0; }

    std::unique_ptr<Publisher> make_publisher(const Channel& channel) const override {
        if (in_place_) {
            return std::make_unique<Lending_Publisher>(channel);
        }
        return std::make_unique<Copying_Publisher>(channel);
    }

    std::unique_ptr<Subscriber> make_subscriber(const Channel& channel,
                                                int consumer) const override {
        return std::make_unique<Frame_Consumer>(channel, consumer, in_place_);
    }

private:
    const bool in_place_;
    const int daemon_;
};

}  // namespace

std::unique_ptr<Transport> make_zav_shm_transport(bool in_place) {
    return std::make_unique<Zav_Shm_Transport>(in_place);
}

}  // namespace zav_shm::bench::compare
