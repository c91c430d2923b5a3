// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/trace_comparison.h"

#include <algorithm>
#include <numeric>
#include <tuple>

namespace zav_shm::tool {

namespace {

using Step = trace::Trace_Reader::Step;

/// The frames of one stream, and where they begin anew.
class Frames {
public:
    Frames(const trace::Trace_Source& source, std::uint16_t number) : reader_(source) {
        static_cast<void>(reader_.open());  // the caller has seen that it is one
        reader_.read_only(number);
    }

    bool next() {
        do {
            step_ = reader_.next();
        } while (step_ == Step::record && frame().head.type != trace::Record_Type::frame);
        if (step_ != Step::record) {
            return false;
        }
        const std::uint64_t epoch = frame().frame.epoch;
        begins_anew_ = epoch_ != 0 && epoch != epoch_;
        epoch_ = epoch;
        return true;
    }

    const trace::Trace_Record& frame() const { return reader_.record(); }
    bool begins_anew() const { return begins_anew_; }

    /// Why there is no further frame.
    std::string end() const {
        return step_ == Step::damage ? "is damaged " + reader_.damage().text() : "ends";
    }
    bool is_damaged() const { return step_ == Step::damage; }

private:
    trace::Trace_Reader reader_;
    Step step_ = Step::record;
    std::uint64_t epoch_ = 0;  // of the frame before
    bool begins_anew_ = false;
};

std::vector<std::uint16_t> by_place(const std::vector<trace::Stream_Name>& names) {
    std::vector<std::uint16_t> numbers(names.size());
    std::iota(numbers.begin(), numbers.end(), std::uint16_t{0});
    const auto place = [&](std::uint16_t number) {
        const auto& name = names[number];
        return std::tie(name.channel, name.stream, name.producer);
    };
    std::sort(numbers.begin(), numbers.end(),
              [&](auto one, auto other) { return place(one) < place(other); });
    return numbers;
}

std::string versus(const char* what, auto one, auto other) {
    return std::string(what) + " " + std::to_string(one) + " and " + std::to_string(other);
}

std::optional<std::string> header_difference(const ZAV_SHM_Frame_Header& one,
                                             const ZAV_SHM_Frame_Header& other) {
    using Header = ZAV_SHM_Frame_Header;
    std::optional<std::string> found;
    const auto compare = [&](const char* what, auto Header::*field) {
        if (!found && one.*field != other.*field) {
            found = versus(what, one.*field, other.*field);
        }
    };
    compare("sequence", &Header::sequence);
    compare("flags", &Header::flags);
    if (!found && one.codec != other.codec) {
        found = "codec " + codec_name(one.codec) + " and " + codec_name(other.codec);
    }
    compare("pts_ns", &Header::pts_ns);
    compare("utc_ns", &Header::utc_ns);
    compare("width", &Header::width);
    compare("height", &Header::height);
    compare("rate_num", &Header::rate_num);
    compare("rate_den", &Header::rate_den);
    compare("channels", &Header::channels);
    compare("duration_us", &Header::duration_us);
    return found;
}

// A frame without a header of ours has one after a replay: its payload alone can be equal.
std::optional<std::string> difference(const Frames& one, const Frames& other) {
    const bool has_headers = !one.frame().is_foreign() && !other.frame().is_foreign();
    if (has_headers && one.begins_anew() != other.begins_anew()) {
        return std::string("only in the ") + (one.begins_anew() ? "first" : "second") +
               " one its producer begins anew";
    }
    if (has_headers) {
        if (auto found = header_difference(one.frame().frame, other.frame().frame)) {
            return found;
        }
    }
    const auto payload = one.frame().payload;
    const auto other_payload = other.frame().payload;
    if (payload.size() != other_payload.size()) {
        return versus("payload bytes", payload.size(), other_payload.size());
    }
    const auto [at, other_at] =
        std::mismatch(payload.begin(), payload.end(), other_payload.begin());
    if (at != payload.end()) {
        return "the payload differs from byte " + std::to_string(at - payload.begin()) + " on";
    }
    return {};
}

}  // namespace

std::optional<std::string> Trace_Comparison::find_difference() {
    trace::Trace_Reader one(one_);
    trace::Trace_Reader other(other_);
    if (const auto damage = one.open() ? one.open() : other.open()) {
        return damage->text();
    }
    const auto& names = one.streams();
    const auto& other_names = other.streams();
    if (names.size() != other_names.size()) {
        return versus("streams:", names.size(), other_names.size());
    }
    const auto numbers = by_place(names);
    const auto other_numbers = by_place(other_names);
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        const trace::Stream_Name& name = names[numbers[i]];
        const trace::Stream_Name& other_name = other_names[other_numbers[i]];
        if (name.channel != other_name.channel || name.stream != other_name.stream) {
            return name.text() + " and " + other_name.text() + " are different streams";
        }
        if (auto found = compare_streams(numbers[i], other_numbers[i], name.text())) {
            return found;
        }
        ++streams_;
    }
    return {};
}

std::optional<std::string> Trace_Comparison::compare_streams(std::uint16_t number,
                                                             std::uint16_t other_number,
                                                             const std::string& title) {
    Frames one(one_, number);
    Frames other(other_, other_number);
    for (std::uint64_t count = 1;; ++count, ++frames_) {
        const bool is_there = one.next();
        const bool other_is_there = other.next();
        const std::string place = title + ", frame " + std::to_string(count);
        if (!is_there && !other_is_there && !one.is_damaged() && !other.is_damaged()) {
            return {};
        }
        if (!is_there || !other_is_there) {
            const bool is_first = !is_there && (one.is_damaged() || other_is_there);
            return place + ": the " + (is_first ? "first" : "second") + " one " +
                   (is_first ? one : other).end() + " before it";
        }
        if (const auto found = difference(one, other)) {
            return place + " (at byte " + std::to_string(one.frame().offset) + " and " +
                   std::to_string(other.frame().offset) + "): " + *found;
        }
    }
}

}  // namespace zav_shm::tool
