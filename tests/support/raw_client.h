// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

// A client of the center that shares no code with it: the queues' keys, the sizes and the message
// types stand here a second time, as numbers. A change of the protocol on both of its sides would
// still be noticed.

struct Raw_Message {
    long type = 0;
    std::string text;  // every byte that travelled, without one added or cut
};

/// One of the two control queues, looked up by its key at every use: a queue that was removed and
/// made anew is found again. Nothing blocks for good.
class Raw_Queue {
public:
    static Raw_Queue of_requests() { return Raw_Queue(5120); }
    static Raw_Queue of_replies() { return Raw_Queue(5121); }

    explicit Raw_Queue(int project) : project_(project) {}

    /// Makes the queue, if there is none, and sends exactly these bytes.
    ///
    /// @return false when there is no room until `limit` is over.
    bool send(const std::string& bytes, long type = 1,
              std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

    /// The oldest message, or the oldest of one type when `type` is above 0; nothing when none
    /// comes until `limit` is over.
    std::optional<Raw_Message> take(
        long type = 0, std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

    void make() const;
    void remove() const;
    void set_mode(unsigned short mode) const;

    /// What the kernel says of it; all 0 when there is no queue.
    struct Status {
        std::size_t messages = 0;
        std::size_t bytes = 0;
        std::size_t bytes_max = 0;
        unsigned mode = 0;
        bool exists = false;
    };
    Status status() const;
    std::size_t messages() const { return status().messages; }

private:
    int id(int flags) const;

    int project_;
};

/// The number of a process that has been and is gone.
pid_t gone_pid();

class Raw_Client {
public:
    /// @param pid  what requests are signed with and replies are addressed to.
    explicit Raw_Client(long pid = getpid()) : pid_(pid) {}

    long pid() const { return pid_; }

    /// Sends a request as clients do: the text, padded with zero bytes to 1028.
    bool send(const std::string& text) const;

    /// Sends a request with "pid" added to it: `text` is a JSON object without one.
    bool send_signed(const std::string& text) const;

    /// Sends a request with "pid" added and returns the reply, or "no reply".
    std::string ask(const std::string& text) const;

    /// The text of the next reply to this client, or "no reply".
    std::string reply(std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

private:
    long pid_;
};

/// The value of a text field in a reply; empty when it has none.
std::string field_of(const std::string& reply, const std::string& field);
