// SPDX-License-Identifier: Apache-2.0
//
// Elementary streams of any bytes through the splitter of access units, cut in two ways. The first
// two bytes choose codec, limit and cut.
#include <algorithm>
#include <vector>

#include "apps/media/access_unit_splitter.h"
#include "apps/media/picture_size.h"
#include "fuzz/fuzz_target.h"

namespace {

using namespace zav_shm;
using fuzz::require;
using media::Access_Unit;
using media::Video_Codec;

struct Result {
    std::vector<std::byte> bytes;
    std::vector<std::uint64_t> sizes;
    std::vector<unsigned> facts;
    bool cut = false;  // something was beyond the limit
    bool began = false;
};

unsigned facts_of(const Access_Unit& unit) {
    unsigned facts = 0;
    for (const bool fact : {unit.has_picture, unit.is_key, unit.is_recovery_point, unit.is_field,
                            unit.has_configuration, unit.codec == Video_Codec::h265}) {
        facts = facts << 1U | (fact ? 1U : 0U);
    }
    return facts;
}

Result split(Video_Codec codec, std::size_t limit, std::span<const std::byte> input,
             std::size_t block) {
    Result result;
    media::Access_Unit_Splitter splitter(codec, limit, [&](const Access_Unit& unit) {
        require(unit.bytes.size() <= limit + 1, "memory is bounded by the limit");
        require(unit.too_long == (unit.size_bytes > limit), "what is too long is said to be");
        result.bytes.insert(result.bytes.end(), unit.bytes.begin(), unit.bytes.end());
        result.sizes.push_back(unit.size_bytes);
        result.facts.push_back(facts_of(unit));
        require(!unit.is_key || !unit.is_recovery_point, "an IDR picture is told from the others");
        result.cut = result.cut || unit.too_long;
        static_cast<void>(media::picture_size(unit.codec, unit.bytes));
    });
    for (std::size_t at = 0; at < input.size(); at += block) {
        splitter.feed(input.subspan(at, std::min(block, input.size() - at)));
    }
    result.began = splitter.found_start_code();
    splitter.finish();
    return result;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    const Video_Codec codec = (data[0] & 1U) != 0 ? Video_Codec::h265 : Video_Codec::h264;
    const std::size_t limit = 16 + std::size_t{data[0]} * 16;
    const std::size_t block = 1 + std::size_t{data[1]};
    const std::span<const std::byte> input =
        std::as_bytes(std::span<const uint8_t>(data, size)).subspan(2);
    const Result whole = split(codec, limit, input, input.size() + 1);
    const Result pieces = split(codec, limit, input, block);
    require(
        whole.sizes == pieces.sizes && whole.bytes == pieces.bytes && whole.facts == pieces.facts,
        "how the input is cut makes no difference");
    if (whole.began && !whole.cut) {
        require(std::equal(input.begin(), input.end(), whole.bytes.begin(), whole.bytes.end()),
                "the access units put together are the input");
    }
    return 0;
}
