// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/recording_account.h"

#include <cinttypes>
#include <cstdio>
#include <utility>

#include "apps/tool/synthetic_pattern.h"

namespace zav_shm::tool {

namespace {

// A stream that loses frames all the time would fill the screen.
constexpr std::uint64_t gaps_told_max = 5;

}  // namespace

void Recording_Account::note(const Received_Frame& frame, const Gap_Finder::Gap& gap,
                             const std::string& input, const std::string& file) {
    tell_gap(frame, gap, input);
    tell_change_of_codec(frame, file);
}

void Recording_Account::note_written(const Received_Frame& frame) {
    const bool is_damaged =
        options_.verify_synthetic && !is_synthetic(frame.payload(), frame.header.sequence);
    damaged_ += is_damaged ? 1U : 0U;
}

void Recording_Account::tell_change_of_codec(const Received_Frame& frame, const std::string& file) {
    const std::uint32_t before = std::exchange(codec_, frame.header.codec);
    if (before != 0 && codec_ != 0 && before != codec_) {
        ++codec_changes_;
        complain("the stream changes from " + codec_name(before) + " to " + codec_name(codec_) +
                 " at frame " + std::to_string(frame.header.sequence) + ": players of " + file +
                 " stop there");
    }
}

void Recording_Account::tell_gap(const Received_Frame& frame, const Gap_Finder::Gap& gap,
                                 const std::string& input) {
    if (gap.is_none() || gaps_++ >= gaps_told_max) {
        return;
    }
    const std::string name = "frame " + std::to_string(frame.header.sequence);
    std::string text = input + ": ";
    text += gap.other_producer ? name + " is the first one of another or restarted producer"
                               : "a gap before " + name;
    for (const auto& [count, fate] :
         {std::pair{gap.lost, " lost"}, std::pair{gap.dropped, " dropped for newer ones"},
          std::pair{gap.skipped, " left out on the way to a key frame"}}) {
        text += count > 0 ? ", " + std::to_string(count) + fate : "";
    }
    complain(text + (gaps_ == gaps_told_max ? "; further gaps are only counted" : ""));
}

Exit_Status Recording_Account::tell(const Recorded_Totals& totals, const Subscriber_Counters& sum,
                                    const std::string& more) const {
    std::fprintf(stderr,
                 "record: frames=%" PRIu64 " bytes=%" PRIu64 " lost=%" PRIu64 " dropped=%" PRIu64
                 " torn=%" PRIu64 " key_frames=%" PRIu64 " recovery_points=%" PRIu64
                 " first=%" PRIu64 " last=%" PRIu64 " skipped=%" PRIu64 " gaps=%" PRIu64
                 " foreign=%" PRIu64 " reconnects=%" PRIu64 " damaged=%" PRIu64
                 " overtaken=%" PRIu64 " left_out=%" PRIu64 " no_memory=%" PRIu64 "%s\n",
                 totals.frames, totals.bytes, sum.lost(), sum.dropped, sum.torn, totals.key_frames,
                 totals.recovery_points, totals.first_sequence, totals.last_sequence, sum.skipped,
                 gaps_, sum.foreign, sum.recoveries, damaged_, sum.overtaken, sum.left_out,
                 sum.no_memory, more.c_str());
    if (damaged_ > 0) {
        complain(std::to_string(damaged_) + " of " + std::to_string(totals.frames) +
                 " frames do not hold the pattern of publish --synthetic");
        return Exit_Status::incomplete;
    }
    const std::uint64_t flaws = sum.lost() + sum.dropped + sum.torn + gaps_ + codec_changes_;
    const bool complete = flaws == 0 && totals.frames > 0;
    return complete || !options_.strict ? Exit_Status::ok : Exit_Status::incomplete;
}

}  // namespace zav_shm::tool
