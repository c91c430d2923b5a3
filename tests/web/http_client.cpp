// SPDX-License-Identifier: Apache-2.0
#include "web/http_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cstdlib>

namespace {

std::string without_chunks(const std::string& body) {
    std::string whole;
    for (std::size_t at = 0; at < body.size();) {
        const std::size_t line_end = body.find("\r\n", at);
        if (line_end == std::string::npos) {
            break;
        }
        const std::size_t bytes = std::strtoul(body.c_str() + at, nullptr, 16);
        whole += body.substr(line_end + 2, bytes);
        at = line_end + 2 + bytes + 2;
    }
    return whole;
}

}  // namespace

Http_Client::Http_Client(std::uint16_t port) {
    zav_shm::Descriptor end(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(end.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        socket_ = std::move(end);
    }
}

void Http_Client::send(const std::string& bytes) const {
    const ssize_t sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    static_cast<void>(sent);
}

std::string Http_Client::read(std::chrono::milliseconds limit, std::size_t bytes_max) const {
    const auto end = std::chrono::steady_clock::now() + limit;
    std::string bytes;
    std::array<char, 65536> block{};
    while (bytes.size() < bytes_max) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        pollfd ready{socket_.get(), POLLIN, 0};
        if (left.count() <= 0 || poll(&ready, 1, static_cast<int>(left.count())) <= 0) {
            break;
        }
        const ssize_t got = recv(socket_.get(), block.data(), block.size(), 0);
        if (got <= 0) {
            break;
        }
        bytes.append(block.data(), static_cast<std::size_t>(got));
    }
    return bytes;
}

std::string get(const std::string& path, const std::string& lines) {
    return "GET " + path + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n" + lines + "\r\n";
}

Http_Answer ask(std::uint16_t port, const std::string& request, std::chrono::milliseconds limit) {
    const Http_Client client(port);
    client.send(request);
    return answer_in(client.read(limit));
}

Http_Answer answer_in(const std::string& bytes) {
    Http_Answer answer;
    const std::size_t end = bytes.find("\r\n\r\n");
    if (!bytes.starts_with("HTTP/1.1 ") || end == std::string::npos) {
        return answer;
    }
    answer.status = std::atoi(bytes.c_str() + 9);
    answer.head = bytes.substr(0, end);
    const std::string body = bytes.substr(end + 4);
    const bool is_chunked = answer.head.find("chunked") != std::string::npos;
    answer.body = is_chunked ? without_chunks(body) : body;
    return answer;
}
