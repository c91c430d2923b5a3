// SPDX-License-Identifier: Apache-2.0
//
// Bytes go to `tail_` while it is open whether they belong to the present access unit or to the
// next one: the last zero bytes (they may become a start code), a start code, and the head of a
// NAL unit. Everything else goes to `unit_` at once. A prefix NAL unit, which belongs to the slice
// behind it, stays in `tail_` as a whole.
#include "apps/media/access_unit_splitter.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

#include "apps/media/codec_guess.h"

namespace zav_shm::media {

namespace {

constexpr std::byte zero{0};
constexpr std::byte one{1};

// One byte more than the limit is stored, and has to be countable.
constexpr std::size_t limit_bytes_max = std::numeric_limits<std::size_t>::max() - 1;

constexpr std::size_t short_start_code_zeros = 2;
constexpr std::size_t long_start_code_zeros = 3;

// A prefix NAL unit has a handful of bytes. One longer than this is taken for a part of the
// present access unit, so that the tail stays short.
constexpr std::size_t prefix_bytes_max = 1024;

}  // namespace

Access_Unit_Splitter::Access_Unit_Splitter(Video_Codec codec, std::size_t limit_bytes,
                                           Receiver receiver)
    : first_codec_(codec),
      codec_(codec),
      unit_codec_(codec),
      limit_bytes_(std::min(limit_bytes, limit_bytes_max)),
      receiver_(std::move(receiver)) {}

void Access_Unit_Splitter::feed(std::span<const std::byte> block) {
    while (!block.empty()) {
        if (!tail_.empty() || block.front() == zero) {
            feed_byte(block.front());
            block = block.subspan(1);
            continue;
        }
        // In the middle of a NAL unit only a zero byte is of interest.
        const void* found = std::memchr(block.data(), 0, block.size());
        const auto length =
            found == nullptr
                ? block.size()
                : static_cast<std::size_t>(static_cast<const std::byte*>(found) - block.data());
        keep(block.first(length));
        zeros_ = 0;
        block = block.subspan(length);
    }
}

void Access_Unit_Splitter::finish() {
    settle();
    end_nal_unit();
    if (found_start_code_ && facts_.size_bytes > 0) {
        hand_out(true);
    }
    unit_.clear();
    facts_ = {};
    zeros_ = 0;
    found_start_code_ = false;
    codec_ = unit_codec_ = first_codec_;
    inspector_ = {};
}

void Access_Unit_Splitter::feed_byte(std::byte byte) {
    tail_.push_back(byte);
    if (byte == one && zeros_ >= short_start_code_zeros) {
        begin_nal_unit();
        return;
    }
    if (in_head_) {
        read_head(byte);
    }
    zeros_ = byte == zero ? std::min(zeros_ + 1, long_start_code_zeros) : 0;
    if (in_head_ || (holds_prefix_ && tail_.size() <= prefix_bytes_max)) {
        return;
    }
    // Only zero bytes at the end may still become a part of the next access unit, and three of
    // them at most: those before belong to the present one.
    holds_prefix_ = false;
    keep(std::span(tail_).first(tail_.size() - zeros_));
    tail_.erase(tail_.begin(), tail_.end() - static_cast<std::ptrdiff_t>(zeros_));
}

// The start code is complete and at the end of `tail_`, with the zero byte that makes it a long
// one.
void Access_Unit_Splitter::begin_nal_unit() {
    const std::size_t start_code_bytes = zeros_ + 1;
    if (!holds_prefix_) {
        keep(std::span(tail_).first(tail_.size() - start_code_bytes));
        tail_.erase(tail_.begin(), tail_.end() - static_cast<std::ptrdiff_t>(start_code_bytes));
        end_nal_unit();
    }
    zeros_ = 0;
    found_start_code_ = true;
    in_head_ = true;
    head_bytes_ = 0;
}

void Access_Unit_Splitter::read_head(std::byte byte) {
    head_[head_bytes_++] = byte;
    const auto head = std::span(head_).first(head_bytes_);
    const auto changes = changes_codec(codec_, head);
    if (!changes) {
        return;
    }
    codec_ = *changes ? other_codec(codec_) : codec_;
    if (const auto meaning = meaning_of(codec_, head)) {
        in_head_ = false;
        place(*meaning);
    }
}

// Decides where the bytes in `tail_` go.
void Access_Unit_Splitter::place(const Nal_Meaning& meaning) {
    if (meaning.place == Nal_Place::precedes && facts_.has_picture) {
        holds_prefix_ = true;
        return;
    }
    const bool opens =
        meaning.place == Nal_Place::opens || meaning.place == Nal_Place::opens_picture;
    if (opens && facts_.has_picture) {
        hand_out(false);
    }
    holds_prefix_ = false;
    nal_begin_ = facts_.size_bytes + tail_.size() - head_bytes_;
    unit_codec_ = codec_;
    facts_.has_picture |= meaning.is_slice;
    facts_.is_key |= meaning.is_key;
    facts_.is_recovery_point |= meaning.is_recovery_point;
    facts_.has_configuration |= meaning.is_configuration;
}

// Its bytes are in `unit_`, as far as the limit lets them.
void Access_Unit_Splitter::end_nal_unit() {
    if (nal_begin_ && *nal_begin_ < unit_.size()) {
        inspector_.inspect(codec_, std::span(unit_).subspan(static_cast<std::size_t>(*nal_begin_)));
    }
    nal_begin_.reset();
}

void Access_Unit_Splitter::settle() {
    keep(tail_);
    tail_.clear();
    in_head_ = false;
    holds_prefix_ = false;
}

void Access_Unit_Splitter::keep(std::span<const std::byte> bytes) {
    facts_.size_bytes += bytes.size();
    // One more than the limit shows whoever is handed the bytes alone that they are too many.
    const std::size_t stored = std::min(bytes.size(), limit_bytes_ + 1 - unit_.size());
    unit_.insert(unit_.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(stored));
}

void Access_Unit_Splitter::hand_out(bool is_last) {
    const bool is_entry = facts_.is_key || facts_.is_recovery_point;
    const Unit_Findings findings = inspector_.conclude(is_entry);
    facts_.is_recovery_point =
        !facts_.is_key && (facts_.is_recovery_point || findings.is_recovery_point);
    facts_.is_field = findings.is_field;
    facts_.codec = unit_codec_;
    facts_.bytes = unit_;
    facts_.too_long = facts_.size_bytes > limit_bytes_;
    facts_.is_last = is_last;
    receiver_(facts_);
    unit_.clear();
    facts_ = {};
}

}  // namespace zav_shm::media
