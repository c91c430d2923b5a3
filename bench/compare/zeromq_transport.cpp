// SPDX-License-Identifier: Apache-2.0
//
// ZeroMQ, publish/subscribe over ipc://. High-water marks of queue_frames on both ends; between
// them lie the buffers of a socket. An XPUB socket is a PUB socket that can also be told to wait
// for a full subscriber rather than to drop.

#include <zmq.hpp>

#include <cstring>
#include <vector>

#include "bench/compare/transports.h"

namespace zav_shm::bench::compare {

namespace {

constexpr int linger_ms = 0;  // consumers have taken everything when a producer leaves

std::string endpoint_of(const Channel& channel) { return "ipc://" + channel.socket_path("zmq"); }

class Zeromq_Publisher : public Publisher {
public:
    explicit Zeromq_Publisher(const Channel& channel)
        : payload_(channel.load.payload_bytes), socket_(context_, zmq::socket_type::xpub) {
        socket_.set(zmq::sockopt::sndhwm, queue_frames);
        socket_.set(zmq::sockopt::xpub_nodrop, channel.load.flow == Flow::wait);
        socket_.set(zmq::sockopt::linger, linger_ms);
        socket_.bind(endpoint_of(channel));
    }

    std::span<std::byte> room() override { return payload_; }
    void publish() override {
        socket_.send(zmq::const_buffer(payload_.data(), payload_.size()), zmq::send_flags::none);
    }

private:
    std::vector<std::byte> payload_;
    zmq::context_t context_;
    zmq::socket_t socket_;
};

class Zeromq_Subscriber : public Subscriber {
public:
    explicit Zeromq_Subscriber(const Channel& channel) : socket_(context_, zmq::socket_type::sub) {
        socket_.set(zmq::sockopt::rcvhwm, queue_frames);
        socket_.set(zmq::sockopt::subscribe, "");
        socket_.set(zmq::sockopt::rcvtimeo, static_cast<int>(idle_time.count()));
        socket_.connect(endpoint_of(channel));
    }

    void serve(Frame_Reader& reader) override {
        while (socket_.recv(message_)) {
            reader.read({message_.data<std::byte>(), message_.size()});
            if (!reader.judged(true)) {
                return;
            }
        }
    }

private:
    zmq::message_t message_;
    zmq::context_t context_;
    zmq::socket_t socket_;
};

class Zeromq_Transport : public Transport {
public:
    std::string name() const override { return "ZeroMQ"; }
    std::string copies() const override { return "3"; }  // into a message; in and out of a socket

    std::unique_ptr<Publisher> make_publisher(const Channel& channel) const override {
        return std::make_unique<Zeromq_Publisher>(channel);
    }
    std::unique_ptr<Subscriber> make_subscriber(const Channel& channel,
                                                int /*consumer*/) const override {
        return std::make_unique<Zeromq_Subscriber>(channel);
    }
};

}  // namespace

std::unique_ptr<Transport> make_zeromq_transport() { return std::make_unique<Zeromq_Transport>(); }

}  // namespace zav_shm::bench::compare
