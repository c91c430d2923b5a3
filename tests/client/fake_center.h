// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/raw_client.h"

/// A center that shares no code with the library: its texts are literal, its queues those of
/// Raw_Queue. Answers on a thread of its own whoever asks, notes every request, and demands of
/// each that it travels as a record of type 1 with 1028 bytes, zero behind the text.
class Fake_Center {
public:
    Fake_Center();
    ~Fake_Center();
    Fake_Center(const Fake_Center&) = delete;
    Fake_Center& operator=(const Fake_Center&) = delete;

    /// What queries are told: so many channels, and a stream for each page size.
    void configure(int channels, const std::vector<int>& page_sizes);

    /// The next request that has no answer yet gets these bytes, whatever it is. Without one it
    /// gets what a center would say that knows every name.
    void answer(const std::string& bytes);

    /// Texts of the requests since the last call. The reply is sent after the request is noted.
    std::vector<std::string> requests();

private:
    void serve();
    std::string note(const Raw_Message& request);
    std::string usual_answer(const std::string& request) const;

    std::mutex lock_;  // guards the next four
    std::deque<std::string> answers_;
    std::vector<std::string> requests_;
    int channels_ = 1;
    std::vector<int> page_sizes_{4096};
    std::atomic<bool> stopping_{false};
    std::thread serving_;
};

/// The reply to a query for which segments lie below /dev/shm.
std::string query_reply(const std::string& channel, const std::string& stream,
                        const std::string& page_size);

/// A reply with the names of a channel: `side` is SRC or DST, `name` the client's.
std::string channel_reply(const std::string& command, const std::string& producer,
                          const std::string& side, const std::string& name,
                          const std::string& channel = "0", const std::string& stream = "0");
