// SPDX-License-Identifier: Apache-2.0
#include "rtspd/rtsp_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "ipc/monotonic_clock.h"

using Clock = std::chrono::steady_clock;

namespace {

constexpr std::size_t rtp_header_bytes = 12;
constexpr std::size_t frame_header_bytes = 4;  // "$", channel, length
constexpr unsigned nal_fragment = 28;
constexpr unsigned nal_aggregate = 24;

unsigned octet(const std::string& bytes, std::size_t at) {
    return static_cast<unsigned char>(bytes[at]);
}

unsigned two_octets(const std::string& bytes, std::size_t at) {
    return octet(bytes, at) << 8U | octet(bytes, at + 1);
}

// The text behind "NAME:", up to the end of the line or a semicolon.
std::string header_of(const std::string& head, const std::string& name) {
    const std::size_t found = head.find("\r\n" + name + ":");
    if (found == std::string::npos) {
        return {};
    }
    const std::size_t begin = head.find_first_not_of(' ', found + name.size() + 3);
    return head.substr(begin, head.find_first_of("\r;", begin) - begin);
}

}  // namespace

Rtsp_Client::Rtsp_Client(int port, int receive_bytes)
    : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    if (receive_bytes != 0) {
        setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &receive_bytes, sizeof receive_bytes);
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ended_ = connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0;
}

Rtsp_Client::~Rtsp_Client() { close(socket_); }

void Rtsp_Client::send(const std::string& bytes) {
    if (::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) {
        ended_ = true;
    }
}

bool Rtsp_Client::fill(Clock::time_point end) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    pollfd waited{socket_, POLLIN, 0};
    if (ended_ || poll(&waited, 1, static_cast<int>(std::max<long>(left.count(), 0))) <= 0) {
        return false;
    }
    std::array<char, 65536> block{};
    const ssize_t got = recv(socket_, block.data(), block.size(), 0);
    if (got <= 0) {
        ended_ = true;
        return false;
    }
    input_.append(block.data(), static_cast<std::size_t>(got));
    return true;
}

bool Rtsp_Client::take_reply(Reply& reply) {
    const std::size_t end = input_.find("\r\n\r\n");
    if (end == std::string::npos) {
        return false;
    }
    const std::string head = input_.substr(0, end + 2);
    const auto length = static_cast<std::size_t>(
        std::strtoul(header_of(head, "Content-Length").c_str(), nullptr, 10));
    if (input_.size() < end + 4 + length) {
        return false;
    }
    reply.head = head;
    reply.body = input_.substr(end + 4, length);
    reply.status = std::atoi(head.c_str() + std::strlen("RTSP/1.0 "));
    input_.erase(0, end + 4 + length);
    return true;
}

Rtsp_Client::Reply Rtsp_Client::request(const std::string& method, const std::string& path,
                                        const std::string& headers) {
    std::string text = method + " rtsp://127.0.0.1" + path +
                       " RTSP/1.0\r\nCSeq: " + std::to_string(++requests_) + "\r\n" + headers;
    if (!session_.empty()) {
        text += "Session: " + session_ + "\r\n";
    }
    sent_ns_ = zav_shm::monotonic_ns();
    send(text + "\r\n");
    Reply reply;
    const auto end = Clock::now() + default_limit;
    while (!take_reply(reply)) {
        if (!fill(end)) {
            return {};
        }
    }
    if (const std::string session = header_of(reply.head, "Session"); !session.empty()) {
        session_ = session;
    }
    return reply;
}

int Rtsp_Client::play(const std::string& path) {
    const Reply reply = request("DESCRIBE", path, "Accept: application/sdp\r\n");
    return reply.status == 200 ? set_up(path) : reply.status;
}

int Rtsp_Client::set_up(const std::string& path) {
    Reply reply =
        request("SETUP", path + "/stream=0", "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n");
    if (reply.status == 200) {
        reply = request("PLAY", path, "Range: npt=now-\r\n");
    }
    return reply.status;
}

std::optional<std::string> Rtsp_Client::next_packet(Clock::time_point end) {
    for (;;) {
        if (input_.size() >= frame_header_bytes && input_[0] == '$') {
            const std::size_t whole = frame_header_bytes + two_octets(input_, 2);
            if (input_.size() >= whole) {
                std::string packet = input_.substr(frame_header_bytes, whole - frame_header_bytes);
                const bool is_media = input_[1] == 0;
                input_.erase(0, whole);
                if (is_media && packet.size() > rtp_header_bytes) {
                    return packet;
                }
                continue;
            }
        }
        if (!fill(end)) {
            return std::nullopt;
        }
    }
}

// True when the packet is the last one of its unit.
bool Rtsp_Client::add_packet(const std::string& packet, Rtp_Unit& unit) {
    const auto number = static_cast<std::uint16_t>(two_octets(packet, 2));
    if (last_number_ && number != static_cast<std::uint16_t>(*last_number_ + 1)) {
        unit.follows_gap = true;
    }
    last_number_ = number;
    unit.time = two_octets(packet, 4) << 16U | two_octets(packet, 6);
    unit.last_ns = zav_shm::monotonic_ns();
    unit.first_ns = unit.first_ns == 0 ? unit.last_ns : unit.first_ns;
    const unsigned head = octet(packet, rtp_header_bytes);
    if ((head & 31U) == nal_fragment) {
        const unsigned second = octet(packet, rtp_header_bytes + 1);
        if ((second & 128U) != 0) {
            fragments_ = std::string(1, static_cast<char>((head & 0xE0U) | (second & 31U)));
        }
        fragments_ += packet.substr(rtp_header_bytes + 2);
        if ((second & 64U) != 0) {
            unit.nal_units.push_back(std::exchange(fragments_, {}));
        }
    } else if ((head & 31U) == nal_aggregate) {
        for (std::size_t at = rtp_header_bytes + 1; at + 2 < packet.size();) {
            const std::size_t length = two_octets(packet, at);
            unit.nal_units.push_back(packet.substr(at + 2, length));
            at += 2 + length;
        }
    } else {
        unit.nal_units.push_back(packet.substr(rtp_header_bytes));
    }
    return (octet(packet, 1) & 128U) != 0;
}

std::optional<Rtp_Unit> Rtsp_Client::next_unit(Limit limit) {
    const auto end = Clock::now() + limit;
    if (!begun_) {
        begun_.emplace();
    }
    while (const auto packet = next_packet(end)) {
        if (add_packet(*packet, *begun_)) {
            return std::exchange(begun_, std::nullopt);
        }
    }
    return std::nullopt;
}

bool Rtsp_Client::is_ended(Limit limit) {
    const auto end = Clock::now() + limit;
    while (!ended_ && Clock::now() < end) {
        fill(end);
        input_.clear();
    }
    return ended_;
}
