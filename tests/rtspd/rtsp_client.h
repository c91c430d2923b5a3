// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// An access unit as it came out of RTP packets: what stands behind start codes otherwise.
struct Rtp_Unit {
    std::vector<std::string> nal_units;
    std::uint32_t time = 0;     // of RTP, 90 kHz
    bool follows_gap = false;   // packets were missing in or before it
    std::int64_t first_ns = 0;  // CLOCK_MONOTONIC when its first packet was here
    std::int64_t last_ns = 0;
};

/// A client that plays H.264 over one TCP connection, and says whatever a test wants to say.
class Rtsp_Client {
public:
    using Limit = std::chrono::milliseconds;
    static constexpr Limit default_limit{10'000};

    /// @param receive_bytes  of the socket's buffer; 0: the system's own
    explicit Rtsp_Client(int port, int receive_bytes = 0);
    ~Rtsp_Client();
    Rtsp_Client(const Rtsp_Client&) = delete;
    Rtsp_Client& operator=(const Rtsp_Client&) = delete;

    void send(const std::string& bytes);

    struct Reply {
        int status = 0;  // 0: none came, or the connection ended
        std::string head;
        std::string body;
    };
    Reply request(const std::string& method, const std::string& path,
                  const std::string& headers = "");

    /// DESCRIBE, SETUP and PLAY.
    ///
    /// @return the status of the one that failed, or 200
    int play(const std::string& path);

    /// SETUP and PLAY.
    int set_up(const std::string& path);

    /// CLOCK_MONOTONIC before the latest request was sent.
    std::int64_t sent_ns() const { return sent_ns_; }

    /// The next whole access unit; nothing when none came in time, or at the end.
    std::optional<Rtp_Unit> next_unit(Limit limit = default_limit);

    /// True when the server ends the connection within the time.
    bool is_ended(Limit limit = default_limit);

private:
    bool fill(std::chrono::steady_clock::time_point end);
    std::optional<std::string> next_packet(std::chrono::steady_clock::time_point end);
    bool take_reply(Reply& reply);
    bool add_packet(const std::string& packet, Rtp_Unit& unit);

    int socket_ = -1;
    std::string input_;
    std::string session_;
    std::string fragments_;  // of a NAL unit
    std::optional<Rtp_Unit> begun_;
    std::optional<std::uint16_t> last_number_;
    std::int64_t sent_ns_ = 0;
    int requests_ = 0;
    bool ended_ = false;
};
