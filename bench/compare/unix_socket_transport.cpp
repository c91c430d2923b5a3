// SPDX-License-Identifier: Apache-2.0
//
// A stream socket per consumer, and one length in front of each payload: what one writes in an
// afternoon. (A SOCK_SEQPACKET message of 1 MiB needs that much contiguous kernel memory.)
//
// With Flow::wait a send blocks. With Flow::drop a consumer whose socket holds queue_frames frames
// already does not get this one; its buffer is made so large that a frame then still fits whole,
// for half a frame cannot be taken back.

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <linux/sockios.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "bench/compare/transports.h"

namespace zav_shm::bench::compare {

namespace {

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

class Socket {
public:
    explicit Socket(int descriptor) : descriptor_(descriptor) {
        if (descriptor_ < 0) {
            fail("unix socket");
        }
    }
    Socket() : Socket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
    Socket(Socket&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    Socket& operator=(Socket&&) = delete;
    ~Socket() {
        if (descriptor_ >= 0) {
            close(descriptor_);
        }
    }

    int get() const { return descriptor_; }

private:
    int descriptor_;
};

sockaddr_un address_of(const Channel& channel) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = channel.socket_path("unix");
    path.copy(&address.sun_path[0], sizeof address.sun_path - 1);
    return address;
}

const sockaddr* generic(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);  // NOLINT(*-reinterpret-cast)
}

class Socket_Publisher : public Publisher {
public:
    explicit Socket_Publisher(const Channel& channel)
        : consumers_(static_cast<std::size_t>(channel.load.consumers)),
          drops_(channel.load.flow == Flow::drop),
          payload_(channel.load.payload_bytes) {
        const sockaddr_un address = address_of(channel);
        unlink(&address.sun_path[0]);
        if (bind(listener_.get(), generic(address), sizeof address) != 0 ||
            listen(listener_.get(), channel.load.consumers) != 0) {
            fail("listening on a unix socket");
        }
    }

    std::span<std::byte> room() override { return payload_; }

    void publish() override {
        if (connections_.size() < consumers_) {
            accept_those_who_wait();
        }
        for (const Socket& connection : connections_) {
            if (!drops_ || has_room(connection)) {
                send_frame(connection);
            }
        }
    }

private:
    void accept_those_who_wait() {
        pollfd waiting{listener_.get(), POLLIN, 0};
        while (poll(&waiting, 1, 0) == 1) {
            Socket connection(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
            // The kernel doubles it and counts its own overhead, up to the payload's length again.
            const auto bytes = static_cast<int>((queue_frames + 1) * payload_.size());
            if (setsockopt(connection.get(), SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof bytes) !=
                0) {
                setsockopt(connection.get(), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
            }
            connections_.push_back(std::move(connection));
        }
    }

    bool has_room(const Socket& connection) const {
        int queued_bytes = 0;
        ioctl(connection.get(), SIOCOUTQ, &queued_bytes);
        return static_cast<std::size_t>(queued_bytes) <= queue_frames * payload_.size();
    }

    void send_frame(const Socket& connection) {
        auto length = static_cast<std::uint32_t>(payload_.size());
        std::array<iovec, 2> parts{{{&length, sizeof length}, {payload_.data(), payload_.size()}}};
        msghdr message{};
        message.msg_iov = parts.data();
        message.msg_iovlen = parts.size();
        while (message.msg_iovlen > 0) {
            const ssize_t sent = sendmsg(connection.get(), &message, MSG_NOSIGNAL);
            if (sent < 0 && errno == EINTR) {
                continue;
            }
            if (sent < 0) {
                return;  // this consumer has gone
            }
            skip(message, static_cast<std::size_t>(sent));
        }
    }

    static void skip(msghdr& message, std::size_t bytes) {
        while (message.msg_iovlen > 0 && bytes >= message.msg_iov->iov_len) {
            bytes -= message.msg_iov->iov_len;
            ++message.msg_iov;
            --message.msg_iovlen;
        }
        if (message.msg_iovlen > 0) {
            message.msg_iov->iov_base = static_cast<char*>(message.msg_iov->iov_base) + bytes;
            message.msg_iov->iov_len -= bytes;
        }
    }

    const std::size_t consumers_;
    const bool drops_;
    std::vector<std::byte> payload_;
    Socket listener_;
    std::vector<Socket> connections_;
};

class Socket_Subscriber : public Subscriber {
public:
    explicit Socket_Subscriber(const Channel& channel) : payload_(channel.load.payload_bytes) {
        const sockaddr_un address = address_of(channel);
        if (connect(connection_.get(), generic(address), sizeof address) != 0) {
            fail("connecting a unix socket");
        }
    }

    void serve(Frame_Reader& reader) override {
        pollfd readable{connection_.get(), POLLIN, 0};
        while (poll(&readable, 1, static_cast<int>(idle_time.count())) == 1) {
            std::uint32_t length = 0;
            if (!receive(&length, sizeof length) || length > payload_.size() ||
                !receive(payload_.data(), length)) {
                throw std::runtime_error("unix socket: the stream broke off");
            }
            reader.read({payload_.data(), length});
            if (!reader.judged(true)) {
                return;
            }
        }
    }

private:
    bool receive(void* memory, std::size_t bytes) {
        return recv(connection_.get(), memory, bytes, MSG_WAITALL) == static_cast<ssize_t>(bytes);
    }

    std::vector<std::byte> payload_;
    Socket connection_;
};

class Unix_Socket_Transport : public Transport {
public:
    std::string name() const override { return "unix socket"; }
    std::string copies() const override { return "2"; }

    std::unique_ptr<Publisher> make_publisher(const Channel& channel) const override {
        return std::make_unique<Socket_Publisher>(channel);
    }
    std::unique_ptr<Subscriber> make_subscriber(const Channel& channel,
                                                int /*consumer*/) const override {
        return std::make_unique<Socket_Subscriber>(channel);
    }
};

}  // namespace

std::unique_ptr<Transport> make_unix_socket_transport() {
    return std::make_unique<Unix_Socket_Transport>();
}

}  // namespace zav_shm::bench::compare
