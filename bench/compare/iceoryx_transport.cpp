// SPDX-License-Identifier: Apache-2.0
//
// Eclipse iceoryx: RouDi as it is installed, with a memory pool for the load's frames, and its
// untyped publishers and subscribers. In place, producer and consumer work in the shared chunk;
// with copies, the producer copies its frame into the chunk and the consumer copies it out.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iceoryx_hoofs/log/logmanager.hpp>
#include <iceoryx_posh/popo/untyped_publisher.hpp>
#include <iceoryx_posh/popo/untyped_subscriber.hpp>
#include <iceoryx_posh/popo/wait_set.hpp>
#include <iceoryx_posh/runtime/posh_runtime.hpp>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "bench/compare/transports.h"
#include "bench/silence.h"

namespace zav_shm::bench::compare {

namespace {

constexpr const char* broker = "/usr/bin/iox-roudi";
constexpr const char* configuration_file = "/tmp/roudi.toml";

void write_configuration(const Load& load) {
    constexpr std::size_t spare_bytes = 256;  // iceoryx's own header, and alignment
    constexpr int of_a_publisher = 10;        // it may hold 8, and remembers the last
    const int of_a_consumer = queue_frames + 2;
    std::ofstream file(configuration_file);
    file << "[general]\nversion = 1\n[[segment]]\n[[segment.mempool]]\n"
         << "size = " << load.payload_bytes + spare_bytes << '\n'
         << "count = " << load.channels() * (load.consumers * of_a_consumer + of_a_publisher)
         << '\n';
}

void join_once() {
    static std::once_flag done;
    std::call_once(done, [] {
        iox::log::LogManager::GetLogManager().SetDefaultLogLevel(
            iox::log::LogLevel::kError, iox::log::LogLevelOutput::kHideLogLevel);
        const std::string name = "process" + std::to_string(getpid());
        iox::runtime::PoshRuntime::initRuntime(
            iox::RuntimeName_t(iox::cxx::TruncateToCapacity, name));
    });
}

iox::capro::ServiceDescription service_of(const Channel& channel) {
    join_once();
    const auto text = [](const std::string& name) {
        return iox::capro::IdString_t(iox::cxx::TruncateToCapacity, name);
    };
    return {text("video"), text("camera" + std::to_string(channel.camera)),
            text("stream" + std::to_string(channel.stream))};
}

iox::popo::PublisherOptions publisher_options(Flow flow) {
    iox::popo::PublisherOptions options;
    options.subscriberTooSlowPolicy = flow == Flow::wait
                                          ? iox::popo::ConsumerTooSlowPolicy::WAIT_FOR_CONSUMER
                                          : iox::popo::ConsumerTooSlowPolicy::DISCARD_OLDEST_DATA;
    return options;
}

iox::popo::SubscriberOptions subscriber_options(Flow flow) {
    iox::popo::SubscriberOptions options;
    options.queueCapacity = queue_frames;
    options.queueFullPolicy = flow == Flow::wait ? iox::popo::QueueFullPolicy::BLOCK_PRODUCER
                                                 : iox::popo::QueueFullPolicy::DISCARD_OLDEST_DATA;
    return options;
}

class Iceoryx_Publisher : public Publisher {
public:
    Iceoryx_Publisher(const Channel& channel, bool in_place)
        : payload_bytes_(channel.load.payload_bytes),
          payload_(in_place ? 0 : payload_bytes_),
          publisher_(service_of(channel), publisher_options(channel.load.flow)) {}

    std::span<std::byte> room() override {
        if (!payload_.empty()) {
            return payload_;
        }
        chunk_ = loan();
        return {static_cast<std::byte*>(chunk_), chunk_ == nullptr ? 0 : payload_bytes_};
    }

    void publish() override {
        if (!payload_.empty()) {
            chunk_ = loan();
            if (chunk_ == nullptr) {
                return;
            }
            std::memcpy(chunk_, payload_.data(), payload_bytes_);
        }
        publisher_.publish(chunk_);
    }

private:
    void* loan() {
        void* chunk = nullptr;
        publisher_.loan(static_cast<std::uint32_t>(payload_bytes_))
            .and_then([&](void* loaned) { chunk = loaned; })
            .or_else([](auto& /*no chunk is free*/) {});
        return chunk;
    }

    const std::size_t payload_bytes_;
    std::vector<std::byte> payload_;  // empty in place
    iox::popo::UntypedPublisher publisher_;
    void* chunk_ = nullptr;  // between room() and publish(), which gives it away
};

class Iceoryx_Subscriber : public Subscriber {
public:
    Iceoryx_Subscriber(const Channel& channel, bool in_place)
        : payload_(in_place ? 0 : channel.load.payload_bytes),
          subscriber_(service_of(channel), subscriber_options(channel.load.flow)) {
        wait_set_.attachState(subscriber_, iox::popo::SubscriberState::HAS_DATA)
            .or_else([](auto& /*error*/) {
                throw std::runtime_error("iceoryx: cannot attach a subscriber to a wait set");
            });
    }

    void serve(Frame_Reader& reader) override {
        constexpr auto limit = static_cast<std::uint64_t>(idle_time.count());
        goes_on_ = true;
        while (goes_on_ &&
               !wait_set_.timedWait(iox::units::Duration::fromMilliseconds(limit)).empty()) {
            while (goes_on_ && take_one(reader)) {
            }
        }
    }

private:
    bool take_one(Frame_Reader& reader) {
        bool taken = false;
        subscriber_.take()
            .and_then([&](const void* chunk) {
                reader.read(payload_of(chunk));
                goes_on_ = reader.judged(true);
                subscriber_.release(chunk);
                taken = true;
            })
            .or_else([](auto& /*none there*/) {});
        return taken;
    }

    std::span<const std::byte> payload_of(const void* chunk) {
        const auto bytes = iox::mepoo::ChunkHeader::fromUserPayload(chunk)->userPayloadSize();
        const auto* const first = static_cast<const std::byte*>(chunk);
        if (payload_.size() != bytes) {
            return {first, bytes};
        }
        std::memcpy(payload_.data(), first, bytes);
        return payload_;
    }

    std::vector<std::byte> payload_;  // empty in place
    iox::popo::UntypedSubscriber subscriber_;
    iox::popo::WaitSet<1> wait_set_;
    bool goes_on_ = true;
};

class Iceoryx_Transport : public Transport {
public:
    explicit Iceoryx_Transport(bool in_place) : in_place_(in_place) {}

    std::string name() const override { return in_place_ ? "iceoryx in place" : "iceoryx"; }
    std::string copies() const override { return in_place_ ? "0" : "2"; }
    bool has_broker() const override { return true; }

    // On SIGTERM it ends by a failed assertion when a process that it knew has left without a word,
    // as one that was stopped and killed does.
    int end_signal() const override { return SIGKILL; }

    int run_broker(const Load& load) const override {
        write_configuration(load);
        silence_standard_output();
        dup2(STDOUT_FILENO, STDERR_FILENO);  // what it reserves, at every log level
        execl(broker, "iox-roudi", "--config-file", configuration_file, "--log-level", "error",
              nullptr);
        std::perror(broker);
        return EXIT_FAILURE;
    }

    std::unique_ptr<Publisher> make_publisher(const Channel& channel) const override {
        return std::make_unique<Iceoryx_Publisher>(channel, in_place_);
    }
    std::unique_ptr<Subscriber> make_subscriber(const Channel& channel,
                                                int /*consumer*/) const override {
        return std::make_unique<Iceoryx_Subscriber>(channel, in_place_);
    }

private:
    const bool in_place_;
};

}  // namespace

std::unique_ptr<Transport> make_iceoryx_transport(bool in_place) {
    return std::make_unique<Iceoryx_Transport>(in_place);
}

}  // namespace zav_shm::bench::compare
