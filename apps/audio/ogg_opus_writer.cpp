// SPDX-License-Identifier: Apache-2.0
#include <ogg/ogg.h>

#include <algorithm>
#include <new>

#include "apps/audio/ogg_opus.h"
#include "apps/audio/opus_head.h"
#include "apps/audio/opus_packet.h"

namespace zav_shm::audio {

namespace {

class Pages_Writer : public Ogg_Opus_Writer {
public:
    Pages_Writer() {
        if (ogg_stream_init(&stream_, 0) != 0) {
            throw std::bad_alloc();
        }
    }
    ~Pages_Writer() override { ogg_stream_clear(&stream_); }
    Pages_Writer(const Pages_Writer&) = delete;
    Pages_Writer& operator=(const Pages_Writer&) = delete;

    Pages add(const Packet& packet) override {
        pages_.clear();
        const std::uint32_t channels = channels_of(packet);
        if (channels != channels_) {
            begin(channels, packet.pre_skip);
        }
        const std::uint64_t end = samples_ + opus_packet_samples(packet.bytes).value_or(0);
        samples_ = end;
        const std::uint64_t heard = end - std::min<std::uint64_t>(end, packet.trimmed);
        const std::size_t before = pages_.size();
        put(packet.bytes, static_cast<std::int64_t>(heard), false, packet.is_last);
        if (packet.is_last) {
            channels_ = 0;
        }
        return {pages_, before + (pages_.empty() ? 0 : first_page_head_)};
    }

private:
    static std::uint32_t channels_of(const Packet& packet) {
        if (packet.channels == 1 || packet.channels == 2) {
            return packet.channels;
        }
        return !packet.bytes.empty() && opus_packet_is_stereo(packet.bytes) ? 2 : 1;
    }

    // The serials of the streams in one file differ.
    void begin(std::uint32_t channels, std::uint32_t pre_skip) {
        channels_ = channels;
        samples_ = 0;
        packets_ = 0;
        ogg_stream_reset_serialno(&stream_, ++serial_);
        put(write_opus_head({.channels = channels, .pre_skip = pre_skip, .input_rate = opus_rate}),
            0, true, false);
        put(write_opus_tags(), 0, false, false);
    }

    // Each packet ends its page.
    void put(std::span<const std::byte> bytes, std::int64_t end, bool is_first, bool is_last) {
        ogg_packet packet{};
        // libogg copies from the packet, and does not write to it.
        auto* const data = const_cast<std::byte*>(bytes.data());  // NOLINT(*-const-cast)
        packet.packet = reinterpret_cast<unsigned char*>(data);   // NOLINT(*-reinterpret-cast)
        packet.bytes = static_cast<long>(bytes.size());
        packet.b_o_s = is_first ? 1 : 0;
        packet.e_o_s = is_last ? 1 : 0;
        packet.granulepos = end;
        packet.packetno = packets_++;
        if (ogg_stream_packetin(&stream_, &packet) != 0) {
            throw std::bad_alloc();
        }
        first_page_head_ = 0;
        ogg_page page;
        while (ogg_stream_flush(&stream_, &page) != 0) {
            if (first_page_head_ == 0) {
                first_page_head_ = static_cast<std::size_t>(page.header_len);
            }
            append(page.header, page.header_len);
            append(page.body, page.body_len);
        }
    }

    void append(const unsigned char* begin, long length) {
        const auto bytes = std::as_bytes(std::span(begin, static_cast<std::size_t>(length)));
        pages_.insert(pages_.end(), bytes.begin(), bytes.end());
    }

    ogg_stream_state stream_{};
    std::vector<std::byte> pages_;
    std::size_t first_page_head_ = 0;  // bytes in front of the packet that was put last
    std::uint32_t channels_ = 0;       // 0: the next packet begins a stream
    std::uint64_t samples_ = 0;
    std::int64_t packets_ = 0;
    int serial_ = 0;
};

}  // namespace

std::unique_ptr<Ogg_Opus_Writer> make_ogg_opus_writer() { return std::make_unique<Pages_Writer>(); }

}  // namespace zav_shm::audio
