// SPDX-License-Identifier: Apache-2.0
#include "gst/unit_reader.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <vector>

#include "gst/lending.h"

using zav_shm::gst::Lending;
using zav_shm::gst::Unit_Facts;
using zav_shm::gst::Unit_Reader;
using zav_shm::media::Video_Codec;

namespace {

using Bytes = std::vector<std::byte>;

Bytes bytes(std::initializer_list<unsigned> values) {
    Bytes made;
    for (const unsigned value : values) {
        made.push_back(static_cast<std::byte>(value));
    }
    return made;
}

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// H.264, each with its start code.
const Bytes delimiter = bytes({0, 0, 0, 1, 0x09, 0xF0});
const Bytes sps = bytes({0, 0, 0, 1, 0x67, 0x42, 0xC0, 0x0A, 0xDA});
const Bytes other_sps = bytes({0, 0, 0, 1, 0x67, 0x42, 0xC0, 0x14, 0xDA});
const Bytes pps = bytes({0, 0, 0, 1, 0x68, 0xCE, 0x38, 0x80});
const Bytes idr = bytes({0, 0, 1, 0x65, 0x88, 0x84, 0x55});
const Bytes inter = bytes({0, 0, 1, 0x41, 0x9A, 0x24, 0x55});

class Units : public testing::Test {
protected:
    Unit_Facts read(const Bytes& unit, bool is_entry = false) {
        const Unit_Facts facts = reader.read(unit, is_entry);
        const auto whole = reader.completed(unit);
        published.assign(whole.begin(), whole.end());
        return facts;
    }

    Unit_Reader reader{Video_Codec::h264};
    Bytes published;  // of the last access unit
};

TEST_F(Units, tell_pictures_that_decoders_begin_at) {
    EXPECT_TRUE(read(sps + pps + idr, true).is_key);
    EXPECT_FALSE(read(inter).is_key);
    EXPECT_FALSE(read(inter).is_recovery_point);
    // The source knows of pictures that show what they are in their slices only.
    EXPECT_TRUE(read(inter, true).is_recovery_point);
    EXPECT_FALSE(read(idr, true).is_recovery_point);
}

TEST_F(Units, tell_configuration) {
    EXPECT_TRUE(read(sps + pps + idr).has_configuration);
    EXPECT_TRUE(read(pps + inter).has_configuration);
    EXPECT_FALSE(read(idr).has_configuration);
}

TEST_F(Units, with_all_that_they_need_stay_as_they_are) {
    const Bytes unit = delimiter + sps + pps + idr;
    read(unit);
    EXPECT_EQ(published, unit);
    read(inter);
    EXPECT_EQ(published, inter);
}

TEST_F(Units, that_are_key_frames_get_the_sets_that_they_lack) {
    read(sps + pps + idr);
    read(idr);
    EXPECT_EQ(published, sps + pps + idr);
}

TEST_F(Units, get_sets_behind_their_delimiter) {
    read(delimiter + sps + pps + idr);
    read(delimiter + idr);
    EXPECT_EQ(published, delimiter + sps + pps + idr);
}

TEST_F(Units, get_the_newest_sets) {
    read(sps + pps + idr);
    read(other_sps + inter);
    EXPECT_EQ(published, other_sps + inter);
    read(idr);
    EXPECT_EQ(published, other_sps + pps + idr);
}

TEST_F(Units, get_nothing_before_there_were_sets) {
    read(idr);
    EXPECT_EQ(published, idr);
}

TEST_F(Units, without_a_start_code_are_passed_on) {
    const Bytes noise = bytes({1, 2, 3, 0, 0});
    const Unit_Facts facts = read(noise);
    EXPECT_FALSE(facts.is_key);
    EXPECT_EQ(published, noise);
    read({});
    EXPECT_TRUE(published.empty());
}

TEST(Units_Of_H265, get_their_sets_in_the_order_of_types) {
    const Bytes vps = bytes({0, 0, 0, 1, 0x40, 0x01, 0x0C});
    const Bytes h265_sps = bytes({0, 0, 0, 1, 0x42, 0x01, 0x01});
    const Bytes h265_pps = bytes({0, 0, 0, 1, 0x44, 0x01, 0xC1});
    const Bytes h265_idr = bytes({0, 0, 1, 0x26, 0x01, 0xAF});
    Unit_Reader reader(Video_Codec::h265);
    reader.read(vps + h265_sps + h265_pps + h265_idr, true);
    const Unit_Facts facts = reader.read(h265_idr, true);
    EXPECT_TRUE(facts.is_key);
    const auto whole = reader.completed(h265_idr);
    EXPECT_EQ(Bytes(whole.begin(), whole.end()), vps + h265_sps + h265_pps + h265_idr);
}

// ---- lending ----

class One_At_A_Time : public testing::Test {
protected:
    void pass(std::uint32_t buffers, bool is_alone = true) {
        for (std::uint32_t i = 0; i < buffers; ++i) {
            lending.acquire();
            lending.arrive(true, is_alone);
            lending.release();
        }
    }

    Lending lending;
};

TEST_F(One_At_A_Time, begins_when_the_trial_is_over) {
    pass(Lending::trial_buffers - 1);
    EXPECT_FALSE(lending.may_lend());
    pass(1);
    EXPECT_TRUE(lending.may_lend());
}

TEST_F(One_At_A_Time, waits_for_a_buffer_that_is_upstream) {
    pass(Lending::trial_buffers);
    lending.acquire();
    EXPECT_FALSE(lending.may_lend());
    lending.release();
    EXPECT_TRUE(lending.may_lend());
}

TEST_F(One_At_A_Time, ends_when_somebody_holds_a_buffer) {
    pass(Lending::trial_buffers);
    pass(1, false);
    pass(Lending::trial_buffers);
    EXPECT_FALSE(lending.may_lend());
    lending.begin();
    pass(Lending::trial_buffers);
    EXPECT_TRUE(lending.may_lend());
}

TEST_F(One_At_A_Time, does_not_begin_where_buffers_queue_up) {
    lending.acquire();
    for (std::uint32_t i = 0; i < 2 * Lending::trial_buffers; ++i) {
        pass(1);
    }
    lending.release();
    EXPECT_FALSE(lending.may_lend());
}

TEST_F(One_At_A_Time, does_not_begin_beside_buffers_from_elsewhere) {
    pass(Lending::trial_buffers / 2);
    lending.arrive(false, true);
    pass(Lending::trial_buffers);
    EXPECT_FALSE(lending.may_lend());
}

}  // namespace
