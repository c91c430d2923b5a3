// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "ipc/descriptor.h"

/// One connection to a server on 127.0.0.1, byte by byte as the test wants it.
class Http_Client {
public:
    explicit Http_Client(std::uint16_t port);

    bool is_open() const { return socket_.is_open(); }
    void send(const std::string& bytes) const;

    /// What comes until the other side closes, the time is over, or `bytes_max` are there.
    std::string read(std::chrono::milliseconds limit, std::size_t bytes_max = SIZE_MAX) const;

private:
    zav_shm::Descriptor socket_;
};

struct Http_Answer {
    int status = 0;  // 0: none came
    std::string head;
    std::string body;  // of a chunked one without the chunks' heads, as far as it was read
};

/// "GET /streams" with these further lines, each with its line end.
std::string get(const std::string& path, const std::string& lines = "");

/// Sends a request on a connection of its own and reads the answer for at most this time.
Http_Answer ask(std::uint16_t port, const std::string& request,
                std::chrono::milliseconds limit = std::chrono::seconds(10));

Http_Answer answer_in(const std::string& bytes);
