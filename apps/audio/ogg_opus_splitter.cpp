// SPDX-License-Identifier: Apache-2.0
//
// libogg finds pages, checks their sums and puts packets together; which pages those are, and what
// a packet means, is decided here. What is hostile: pages without an end of a packet, which would
// let a packet grow without limit, and numbers of samples, which count only where they shorten the
// last packet.
#include <ogg/ogg.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <optional>
#include <utility>

#include "apps/audio/held_frame.h"
#include "apps/audio/ogg_opus.h"
#include "apps/audio/opus_head.h"
#include "apps/audio/opus_packet.h"

namespace zav_shm::audio {

namespace {

// A packet of 120 ms has 61 KB at most, and a page 65 KB.
constexpr int pages_of_packet_max = 2;

constexpr std::size_t others_max = 16;  // streams beside the chosen one that are remembered

std::span<const std::byte> body_of(const ogg_page& page) {
    return std::as_bytes(std::span(page.body, static_cast<std::size_t>(page.body_len)));
}

class Ogg_Opus_Splitter : public Audio_Splitter {
public:
    explicit Ogg_Opus_Splitter(Audio_Receiver& receiver) : receiver_(receiver), held_(receiver) {
        ogg_sync_init(&pages_);
        if (ogg_stream_init(&packets_, 0) != 0) {
            throw std::bad_alloc();
        }
    }
    ~Ogg_Opus_Splitter() override {
        ogg_stream_clear(&packets_);
        ogg_sync_clear(&pages_);
    }
    Ogg_Opus_Splitter(const Ogg_Opus_Splitter&) = delete;
    Ogg_Opus_Splitter& operator=(const Ogg_Opus_Splitter&) = delete;

    void feed(std::span<const std::byte> block) override;
    void finish() override;

private:
    enum class State { heads, tags, audio, ended };

    void take_page(ogg_page& page);
    void take_head(ogg_page& page);
    void choose(int serial, const Opus_Head& head);
    void take_audio(ogg_page& page);
    void take_packet(const ogg_packet& packet);
    void trim(std::int64_t end, bool is_last_page);
    void damage(std::uint64_t bytes, const std::string& what);
    void tell_skipped();
    std::uint64_t cut_page_bytes();
    bool is_chosen(const ogg_page& page) const;
    bool is_other(const ogg_page& page) const;

    Audio_Receiver& receiver_;
    Held_Frame held_;
    ogg_sync_state pages_{};
    ogg_stream_state packets_{};
    std::uint64_t skipped_ = 0;  // bytes between pages since the last page

    State state_ = State::heads;
    std::optional<int> serial_;  // of the chosen stream
    Opus_Head head_;
    std::array<int, others_max> others_{};  // serials of streams that are not wanted
    std::size_t other_count_ = 0;

    int pages_without_end_ = 0;  // in a row
    bool is_first_ = false;      // no packet of the stream was there yet
    bool is_damaged_ = false;    // since the last packet
    std::uint64_t samples_ = 0;  // of the stream so far
    std::uint64_t begin_ = 0;    // the stream's own number of its first sample
};

void Ogg_Opus_Splitter::feed(std::span<const std::byte> block) {
    constexpr std::size_t piece_bytes = 65536;
    while (!block.empty()) {
        const auto piece = block.first(std::min(block.size(), piece_bytes));
        char* const room = ogg_sync_buffer(&pages_, static_cast<long>(piece.size()));
        if (room == nullptr) {
            throw std::bad_alloc();
        }
        std::memcpy(room, piece.data(), piece.size());
        ogg_sync_wrote(&pages_, static_cast<long>(piece.size()));
        block = block.subspan(piece.size());
        ogg_page page;
        for (long found = 0; (found = ogg_sync_pageseek(&pages_, &page)) != 0;) {
            if (found < 0) {
                skipped_ += static_cast<std::uint64_t>(-found);
            } else {
                tell_skipped();
                take_page(page);
            }
        }
    }
}

void Ogg_Opus_Splitter::finish() {
    const std::uint64_t cut = cut_page_bytes();
    held_.release(true);
    tell_skipped();
    if (cut > 0) {
        damage(cut, std::to_string(cut) + " bytes of an Ogg page that is cut off at the end");
    }
    ogg_sync_reset(&pages_);
    state_ = State::heads;
    serial_.reset();
    other_count_ = 0;
    is_damaged_ = false;
}

// Of what is left the part that begins a page; libogg looks at the last bytes only with a whole
// head of a page, so that the others are counted here.
std::uint64_t Ogg_Opus_Splitter::cut_page_bytes() {
    auto rest = std::as_bytes(std::span(pages_.data, static_cast<std::size_t>(pages_.fill)))
                    .subspan(static_cast<std::size_t>(pages_.returned));
    while (!rest.empty() && !begins_as_ogg(rest)) {
        rest = rest.subspan(1);
        ++skipped_;
    }
    return rest.size();
}

void Ogg_Opus_Splitter::tell_skipped() {
    if (skipped_ > 0) {
        const std::uint64_t bytes = std::exchange(skipped_, 0);
        damage(bytes, std::to_string(bytes) + " bytes that are no whole Ogg page");
    }
}

// What is missing goes behind the frame that is held.
void Ogg_Opus_Splitter::damage(std::uint64_t bytes, const std::string& what) {
    held_.release(false);
    receiver_.left_out(bytes, what);
    is_damaged_ = true;
}

bool Ogg_Opus_Splitter::is_chosen(const ogg_page& page) const {
    return serial_ && *serial_ == ogg_page_serialno(&page);
}

bool Ogg_Opus_Splitter::is_other(const ogg_page& page) const {
    const auto known = std::span(others_).first(other_count_);
    return std::ranges::find(known, ogg_page_serialno(&page)) != known.end();
}

void Ogg_Opus_Splitter::take_page(ogg_page& page) {
    if (ogg_page_bos(&page) != 0) {
        take_head(page);
        return;
    }
    if (state_ == State::heads) {
        state_ = serial_ ? State::tags : State::ended;
    }
    if (is_chosen(page) && state_ != State::ended) {
        take_audio(page);
        return;
    }
    if (!is_other(page)) {
        const auto bytes = static_cast<std::uint64_t>(page.header_len + page.body_len);
        damage(bytes, std::to_string(bytes) + " bytes of an Ogg page of no stream that has begun");
    }
}

// All streams that lie beside each other begin before the first of them goes on. So a head behind
// other pages begins the next ones.
void Ogg_Opus_Splitter::take_head(ogg_page& page) {
    if (state_ != State::heads) {
        state_ = State::heads;
        serial_.reset();
        other_count_ = 0;
    }
    const auto head = read_opus_head(body_of(page));
    if (head && head->is_mono_or_stereo() && !serial_) {
        choose(ogg_page_serialno(&page), *head);
        return;
    }
    if (other_count_ < others_max) {
        others_.at(other_count_++) = ogg_page_serialno(&page);
    }
    receiver_.remark(head && !head->is_mono_or_stereo()
                         ? "a stream of Opus with " + std::to_string(head->channels) +
                               " channels in mapping family " + std::to_string(head->mapping) +
                               " is left out; mono and stereo in family 0 are taken"
                         : "a further stream in the Ogg container is left out");
}

void Ogg_Opus_Splitter::choose(int serial, const Opus_Head& head) {
    serial_ = serial;
    head_ = head;
    ogg_stream_reset_serialno(&packets_, serial);
    pages_without_end_ = 0;
    is_first_ = true;
    is_damaged_ = false;
    samples_ = begin_ = 0;
    if (head.gain != 0) {
        receiver_.remark("the stream wants a gain of " + std::to_string(head.gain) +
                         "/256 dB after decoding, which frames do not tell");
    }
}

void Ogg_Opus_Splitter::take_audio(ogg_page& page) {
    if (state_ == State::tags) {
        // Comments may be longer than anything that is kept here; audio begins with a page.
        const bool begins = ogg_page_continued(&page) == 0;
        const bool is_tags = !begins || is_opus_tags(body_of(page));
        if (is_tags) {
            state_ = ogg_page_packets(&page) > 0 ? State::audio : State::tags;
            return;
        }
        state_ = State::audio;
    }
    pages_without_end_ = ogg_page_packets(&page) > 0 ? 0 : pages_without_end_ + 1;
    if (pages_without_end_ > pages_of_packet_max) {
        ogg_stream_reset_serialno(&packets_, *serial_);
        const auto bytes = static_cast<std::uint64_t>(page.body_len);
        damage(bytes, std::to_string(bytes) + " bytes of a packet without an end");
    } else if (ogg_stream_pagein(&packets_, &page) != 0) {
        const auto bytes = static_cast<std::uint64_t>(page.body_len);
        damage(bytes, std::to_string(bytes) + " bytes of an Ogg page that cannot be read");
    }
    ogg_packet packet;
    for (int found = 0; (found = ogg_stream_packetout(&packets_, &packet)) != 0;) {
        if (found < 0) {
            damage(0, "a place where Ogg pages are missing");
        } else {
            take_packet(packet);
        }
    }
    const bool is_last = ogg_page_eos(&page) != 0;
    if (const std::int64_t end = ogg_page_granulepos(&page); end >= 0) {
        trim(end, is_last);
    }
    if (is_last) {
        state_ = State::ended;
    }
}

void Ogg_Opus_Splitter::take_packet(const ogg_packet& packet) {
    const auto bytes =
        std::as_bytes(std::span(packet.packet, static_cast<std::size_t>(packet.bytes)));
    const auto samples = opus_packet_samples(bytes);
    if (!samples) {
        damage(bytes.size(), std::to_string(bytes.size()) + " bytes that are no Opus packet");
        return;
    }
    held_.replace({.bytes = bytes,
                   .format = {opus_rate, head_.channels},
                   .samples = *samples,
                   .pre_skip = is_first_ ? head_.pre_skip : 0,
                   .begins_stream = is_first_,
                   .follows_damage = is_damaged_});
    is_first_ = is_damaged_ = false;
    samples_ += *samples;
}

// @param end  the page's own number of the sample behind its last packet. Hostile: it wraps around
//             in any way, and only what is less than a packet counts.
void Ogg_Opus_Splitter::trim(std::int64_t end, bool is_last_page) {
    const auto counted = static_cast<std::uint64_t>(end);
    if (!is_last_page) {
        begin_ = counted - samples_;
        return;
    }
    const std::uint64_t excess = samples_ - (counted - begin_);
    if (held_.is_there() && excess < held_.samples()) {
        held_.set_samples(held_.samples() - static_cast<std::uint32_t>(excess));
    }
}

}  // namespace

bool has_ogg() { return true; }

std::unique_ptr<Audio_Splitter> make_ogg_opus_splitter(Audio_Receiver& receiver) {
    return std::make_unique<Ogg_Opus_Splitter>(receiver);
}

}  // namespace zav_shm::audio
