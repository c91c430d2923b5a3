// SPDX-License-Identifier: Apache-2.0
#include "apps/audio/adts_splitter.h"

#include <algorithm>

namespace zav_shm::audio {

namespace {

constexpr std::byte sync_byte{0xFF};

// Bytes up to the next one that a header may begin with; at least one.
std::size_t to_next_sync(std::span<const std::byte> rest) {
    const auto next = std::find(rest.begin() + 1, rest.end(), sync_byte);
    return static_cast<std::size_t>(next - rest.begin());
}

}  // namespace

void Adts_Splitter::feed(std::span<const std::byte> block) {
    constexpr std::size_t piece_bytes = 65536;  // bounds what is kept, whatever the block's length
    while (!block.empty()) {
        const auto piece = block.first(std::min(block.size(), piece_bytes));
        rest_.insert(rest_.end(), piece.begin(), piece.end());
        block = block.subspan(piece.size());
        divide(false);
    }
}

void Adts_Splitter::finish() {
    divide(true);
    held_.release(true);
    if (left_out_ > 0) {
        tell_left_out("at the end that are no AAC frame");
    }
    rest_.clear();
    is_begun_ = false;
    tag_bytes_ = 0;
    stream_.reset();
}

// @return whether the frames begin.
bool Adts_Splitter::pass_tag(bool at_end) {
    if (!is_begun_) {
        const auto tag = id3_tag_bytes(rest_);
        if (!tag && !at_end) {
            return false;
        }
        is_begun_ = true;
        tag_bytes_ = tag.value_or(0);
    }
    const std::size_t passed = std::min(tag_bytes_, rest_.size());
    divided_ += passed;
    tag_bytes_ -= passed;
    return tag_bytes_ == 0;
}

void Adts_Splitter::divide(bool at_end) {
    bool goes_on = pass_tag(at_end);
    while (goes_on) {
        const auto rest = std::span<const std::byte>(rest_).subspan(divided_);
        const Step next = step(rest, at_end);
        switch (next.find) {
            case Find::needs_more:
                goes_on = false;
                break;
            case Find::frame:
                take(rest.first(next.bytes));
                break;
            case Find::nothing:
                left_out_ += next.bytes;
                break;
            case Find::cut_frame:
                held_.release(true);
                left_out_ += next.bytes;
                tell_left_out("of an AAC frame that is cut off at the end");
                break;
        }
        divided_ += next.bytes;
    }
    rest_.erase(rest_.begin(), rest_.begin() + static_cast<std::ptrdiff_t>(divided_));
    divided_ = 0;
}

Adts_Splitter::Step Adts_Splitter::step(std::span<const std::byte> rest, bool at_end) const {
    if (rest.size() < adts_header_bytes) {
        return at_end && !rest.empty() ? Step{Find::nothing, rest.size()} : Step{Find::needs_more};
    }
    const auto header = read_adts_header(rest);
    return header ? step_at_header(rest, *header, at_end) : Step{Find::nothing, to_next_sync(rest)};
}

Adts_Splitter::Step Adts_Splitter::step_at_header(std::span<const std::byte> rest,
                                                  const Adts_Header& header, bool at_end) const {
    const std::size_t length = header.frame_bytes;
    const Step frame{Find::frame, length};
    const Step nothing{Find::nothing, to_next_sync(rest)};
    if (at_end && rest.size() == length) {
        return frame;
    }
    if (!at_end && rest.size() < length + adts_header_bytes) {
        return {Find::needs_more};
    }
    const bool is_known = is_of_stream(header);
    if (rest.size() > length) {
        const auto next = read_adts_header(rest.subspan(length));
        if (next && (is_known || next->is_of_stream(header))) {
            return frame;
        }
    }
    if (!is_known) {
        return nothing;
    }
    // A frame within this one, its end and the header behind it have to be in sight.
    if (!at_end && rest.size() < length + adts_frame_bytes_max + adts_header_bytes) {
        return {Find::needs_more};
    }
    if (const std::size_t within = frame_within(rest, header, at_end); within != 0) {
        return {Find::nothing, within};
    }
    return rest.size() < length ? Step{Find::cut_frame, rest.size()} : frame;
}

// Where within a frame another one of the stream begins, with a header of the stream, or the end of
// the input, behind it; 0 when there is none.
std::size_t Adts_Splitter::frame_within(std::span<const std::byte> rest, const Adts_Header& header,
                                        bool at_end) const {
    const std::size_t end = std::min(header.frame_bytes, rest.size());
    for (std::size_t at = to_next_sync(rest); at < end; at += to_next_sync(rest.subspan(at))) {
        const auto inner = read_adts_header(rest.subspan(at));
        if (!inner || !is_of_stream(*inner)) {
            continue;
        }
        const std::size_t inner_end = at + inner->frame_bytes;
        if (inner_end > rest.size()) {
            continue;
        }
        const auto next = read_adts_header(rest.subspan(inner_end));
        if ((next && is_of_stream(*next)) || (at_end && inner_end == rest.size())) {
            return at;
        }
    }
    return 0;
}

bool Adts_Splitter::is_of_stream(const Adts_Header& header) const {
    return stream_ && stream_->is_of_stream(header);
}

void Adts_Splitter::take(std::span<const std::byte> frame) {
    const auto header = read_adts_header(frame);
    const bool follows_damage = left_out_ > 0;
    const bool is_first = !stream_;
    held_.release(false);
    if (follows_damage) {
        tell_left_out(is_first ? "before the first AAC frame" : "that are no AAC frame");
    }
    stream_ = header;
    held_.replace({.bytes = frame,
                   .format = header->format,
                   .samples = header->samples,
                   .begins_stream = is_first,
                   .follows_damage = follows_damage && !is_first});
}

void Adts_Splitter::tell_left_out(const char* what) {
    receiver_.left_out(left_out_, std::to_string(left_out_) + " bytes " + what);
    left_out_ = 0;
}

}  // namespace zav_shm::audio
