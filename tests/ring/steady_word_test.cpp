// SPDX-License-Identifier: Apache-2.0
//
// Reading a word that counts up, by reads that take its bytes one by one and at different times.
#include "ring/steady_word.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>

using namespace zav_shm;

namespace {

/// A word that grows between any two bytes of a read.
class Growing_Word {
public:
    Growing_Word(std::uint32_t begin, std::uint32_t growth_max, std::uint32_t seed)
        : value_(begin), growth_max_(growth_max), engine_(seed) {}

    std::uint32_t value() const { return value_; }

    /// In any order of its bytes.
    std::uint32_t read() {
        std::array<std::uint32_t, 4> shifts{0, 8, 16, 24};
        std::shuffle(shifts.begin(), shifts.end(), engine_);
        std::uint32_t result = 0;
        for (const std::uint32_t shift : shifts) {
            result |= value_ & (0xFFU << shift);
            value_ += static_cast<std::uint32_t>(engine_()) % (growth_max_ + 1);
        }
        return result;
    }

private:
    std::uint32_t value_;
    const std::uint32_t growth_max_;
    std::mt19937 engine_;
};

bool is_between(std::uint32_t low, std::uint32_t value, std::uint32_t high) {
    return value - low <= high - low;
}

TEST(Steady_Word, is_one_that_the_word_had_on_its_way) {
    std::uint32_t torn_single_reads = 0;
    for (const std::uint32_t begin : {0U, 200U, 0xFF00U, 0xFFFFF0U, 0xFFFFFF00U}) {
        for (const std::uint32_t growth_max : {1U, 3U, 20U}) {
            for (std::uint32_t seed = 0; seed < 2000; ++seed) {
                Growing_Word word(begin, growth_max, seed);
                const auto value = steady_word([&word] { return std::optional(word.read()); });
                ASSERT_TRUE(value);
                ASSERT_TRUE(is_between(begin, *value, word.value()))
                    << begin << " " << *value << " " << word.value();
                Growing_Word other(begin, growth_max, seed);
                const std::uint32_t single = other.read();
                torn_single_reads += is_between(begin, single, other.value()) ? 0U : 1U;
            }
        }
    }
    EXPECT_GT(torn_single_reads, 100U) << "or the test shows nothing";
}

TEST(Steady_Word, is_none_when_the_word_is_gone_or_played_with) {
    EXPECT_FALSE(steady_word([] { return std::optional<std::uint32_t>(); }));
    int reads_left = 1;
    EXPECT_FALSE(steady_word([&reads_left] {
        return --reads_left < 0 ? std::nullopt : std::optional<std::uint32_t>(7);
    }));
    std::uint32_t value = 0;
    EXPECT_FALSE(steady_word([&value] { return std::optional(value += 0x12345678U); }));
}

}  // namespace
