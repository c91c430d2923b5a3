// SPDX-License-Identifier: Apache-2.0
//
// Traces in memory: whole, cut, damaged, and from a moment on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include "apps/trace/trace_reader.h"
#include "apps/trace/trace_seek.h"
#include "tool/trace_maker.h"

namespace {

using namespace zav_shm;
using namespace zav_shm::trace;
using Step = Trace_Reader::Step;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::uint16_t key = frame_flag::key_frame;

struct Reading {
    std::size_t records = 0;  // behind those of the streams
    std::optional<Damage> unreadable;
    Step end = Step::record;
    Damage damage;
};

Reading read(const Bytes& bytes) {
    const Trace_Memory memory(bytes);
    Trace_Reader reader(memory);
    Reading reading;
    reading.unreadable = reader.open();
    if (reading.unreadable) {
        return reading;
    }
    while ((reading.end = reader.next()) == Step::record) {
        ++reading.records;
    }
    reading.damage = reader.damage();
    return reading;
}

// A key frame, a loss, a foreign frame, an empty one, an index and the end.
struct Small_Trace : Trace_Maker {
    Small_Trace() {
        add(0, 1000, key);
        add_loss(0, 1020);
        add(0, 1040);
        add(1, 1050, 0, 7, true);
        add(1, 1060, key, 0);
        finish();
    }
};

constexpr std::size_t records_of_small_trace = 7;
constexpr std::size_t before_records = 3;  // file header and streams

// ---- checksums ----

TEST(Trace_Checksum, is_that_of_everybody_else_in_one_piece_and_in_several) {
    Bytes digits;
    put_text(digits, "123456789");
    EXPECT_EQ(checksum(digits), 0xE3069283U);
    EXPECT_EQ(checksum(Bytes(32)), 0x8A9136AAU);
    EXPECT_EQ(checksum(Bytes(32, std::byte{0xFF})), 0x62A8AB43U);
    EXPECT_EQ(checksum({}), 0U);
    for (std::size_t cut = 0; cut <= digits.size(); ++cut) {
        EXPECT_EQ(checksum(std::span(digits).subspan(cut), checksum(std::span(digits).first(cut))),
                  0xE3069283U);
    }
}

// ---- whole ----

TEST(Trace, is_read_as_it_was_written) {
    const Small_Trace maker;
    const Trace_Memory memory(maker.bytes);
    Trace_Reader reader(memory);
    ASSERT_FALSE(reader.open());
    EXPECT_THAT(reader.streams(),
                ElementsAre(Stream_Name{"CAM_LOOP", 0, 0}, Stream_Name{"CAM_LOOP", 0, 1}));
    ASSERT_EQ(reader.next(), Step::record);
    EXPECT_EQ(reader.record().frame.sequence, 1U);
    EXPECT_EQ(reader.record().frame.epoch, 4711U);
    EXPECT_EQ(reader.record().frame.pts_ns, -1000);
    EXPECT_EQ(reader.record().frame.rate_num, 25U);
    EXPECT_EQ(reader.record().frame.flags, key);
    EXPECT_EQ(reader.record().moment_ns(), 1'000'000'000);
    EXPECT_EQ(reader.record().head.received.utc_ns, 1'005'000'000);
    EXPECT_EQ(Bytes(reader.record().payload.begin(), reader.record().payload.end()),
              Bytes(5, static_cast<std::byte>(1000 & 0xFF)));
    ASSERT_EQ(reader.next(), Step::record);
    EXPECT_EQ(reader.record().losses.overtaken, 3U);
    EXPECT_EQ(reader.record().losses.skipped, 1U);
    ASSERT_EQ(reader.next(), Step::record);
    ASSERT_EQ(reader.next(), Step::record);
    EXPECT_TRUE(reader.record().is_foreign());
    EXPECT_EQ(reader.record().moment_ns(), 1'055'000'000) << "it has no time but that of arrival";
    ASSERT_EQ(reader.next(), Step::record);
    EXPECT_TRUE(reader.record().payload.empty());
    ASSERT_EQ(reader.next(), Step::record);
    ASSERT_EQ(reader.record().head.type, Record_Type::index);
    EXPECT_EQ(reader.record().index.entries.size(), 4U);
    EXPECT_EQ(reader.record().index.entries[1].offset, maker.begins[before_records + 2]);
    ASSERT_EQ(reader.next(), Step::record);
    EXPECT_EQ(reader.record().end.frames, 4U);
    EXPECT_EQ(reader.next(), Step::end);
}

TEST(Trace, of_one_stream_is_read_without_the_others) {
    const Small_Trace maker;
    const Trace_Memory memory(maker.bytes);
    Trace_Reader reader(memory);
    ASSERT_FALSE(reader.open());
    reader.read_only(1);
    std::size_t frames = 0;
    while (reader.next() == Step::record) {
        EXPECT_NE(reader.record().head.stream, 0);
        frames += reader.record().head.type == Record_Type::frame ? 1U : 0U;
    }
    EXPECT_EQ(frames, 2U);
}

// The layout is a promise to other programs and to other versions of this one.
TEST(Trace, has_its_numbers_with_the_lowest_byte_first) {
    const Small_Trace maker;
    const auto text = [&](std::size_t at, std::size_t length) {
        std::string characters;
        for (const std::byte byte : std::span(maker.bytes).subspan(at, length)) {
            characters += static_cast<char>(byte);
        }
        return characters;
    };
    EXPECT_EQ(text(0, 20), std::string("ZAVTRACE\1\0\x40\0\0\0\0\0\x4D\0\0\0", 20));
    EXPECT_EQ(text(64, 16), std::string("ZREC\1\0\0\0\0\0\0\0\x10\0\0\0", 16));
    EXPECT_EQ(text(104, 16), std::string("\0\0\0\0\0\0\0\0CAM_LOOP", 16));
    const std::size_t frame = maker.begins[before_records];
    EXPECT_EQ(text(frame, 16), std::string("ZREC\2\0\0\0\0\0\0\0\x85\0\0\0", 16));
    EXPECT_EQ(text(frame + 40, 16), std::string("ZAVF\1\0\1\0\1\0\0\0\0\0\0\0", 16));
}

TEST(Trace, passes_over_records_of_types_that_it_does_not_know) {
    Trace_Maker maker;
    maker.add(0, 1000, key);
    put(maker.bytes,
        Record_Head{.type = static_cast<Record_Type>(9), .body_bytes = 3, .received = {}});
    put_zeros(maker.bytes, 3);
    const Reading reading = read(maker.bytes);
    EXPECT_EQ(reading.records, 1U);
    EXPECT_EQ(reading.end, Step::not_closed);
}

// ---- cut ----

TEST(Trace, that_is_cut_anywhere_is_read_up_to_there) {
    const Small_Trace maker;
    for (std::size_t length = 0; length < maker.bytes.size(); ++length) {
        const Bytes cut(maker.bytes.begin(),
                        maker.bytes.begin() + static_cast<std::ptrdiff_t>(length));
        const Reading reading = read(cut);
        ASSERT_EQ(reading.unreadable.has_value(), length < file_header_bytes) << length;
        if (reading.unreadable) {
            ASSERT_TRUE(length == 0 || reading.unreadable->is_cut || length < sizeof magic)
                << length;
            continue;
        }
        const auto behind = std::upper_bound(maker.begins.begin(), maker.begins.end(), length);
        const auto whole = static_cast<std::size_t>(behind - maker.begins.begin()) - 1;
        const bool between = maker.begins[whole] == length;
        ASSERT_EQ(reading.records, whole > before_records ? whole - before_records : 0) << length;
        ASSERT_EQ(reading.end, between ? Step::not_closed : Step::damage) << length;
        if (!between) {
            ASSERT_TRUE(reading.damage.is_cut);
            ASSERT_EQ(reading.damage.offset, maker.begins[whole]) << length;
            ASSERT_THAT(reading.damage.what, HasSubstr("the file ends within a record"));
        }
    }
}

// ---- damaged ----

TEST(Trace, with_any_byte_changed_is_read_up_to_its_record_which_is_named) {
    const Small_Trace maker;
    for (std::size_t at = 0; at < maker.bytes.size(); ++at) {
        for (const unsigned change : {0x01U, 0x80U, 0xFFU}) {
            Bytes damaged = maker.bytes;
            damaged[at] ^= static_cast<std::byte>(change);
            const Reading reading = read(damaged);
            if (at < file_header_bytes) {
                ASSERT_TRUE(reading.unreadable) << at;
                continue;
            }
            const auto behind = std::upper_bound(maker.begins.begin(), maker.begins.end(), at);
            const auto whole = static_cast<std::size_t>(behind - maker.begins.begin()) - 1;
            ASSERT_EQ(reading.end, Step::damage) << at;
            ASSERT_EQ(reading.damage.offset, maker.begins[whole]) << at;
            ASSERT_EQ(reading.records, whole > before_records ? whole - before_records : 0) << at;
        }
    }
}

TEST(Trace, of_another_version_is_named_as_such) {
    Small_Trace maker;
    maker.bytes[8] = std::byte{2};
    EXPECT_EQ(read(maker.bytes).unreadable->text(),
              "at byte 0: it is a trace of version 2; this program reads 1");
    maker.bytes[0] = std::byte{'z'};
    EXPECT_EQ(read(maker.bytes).unreadable->text(), "at byte 0: it is no trace");
}

TEST(Trace, with_bytes_behind_its_end_is_damaged_there) {
    Small_Trace maker;
    const std::size_t end = maker.bytes.size();
    put_zeros(maker.bytes, 3);
    const Reading reading = read(maker.bytes);
    EXPECT_EQ(reading.records, records_of_small_trace);
    EXPECT_EQ(reading.damage.text(),
              "at byte " + std::to_string(end) + ": 3 bytes stand behind the trace's end");
}

// Whole by its checksum, and impossible all the same.
TEST(Trace, with_a_record_that_nobody_can_have_written_is_damaged_there) {
    const auto behind_a_frame = [](Record_Head head, const Bytes& body) {
        Trace_Maker maker;
        maker.add(0, 1000);
        head.body_bytes = static_cast<std::uint32_t>(body.size());
        head.body_checksum = checksum(body);
        put(maker.bytes, head);
        maker.bytes.insert(maker.bytes.end(), body.begin(), body.end());
        return read(maker.bytes);
    };
    Bytes losses;
    put(losses, Frame_Losses{});
    Bytes index;
    put(index, Index{12, 77, 0, {}});
    Bytes end;
    put(end, End{77, 1'000'000, 0});
    for (const auto& [type, stream, body] : {std::tuple{Record_Type::frame, 0, Bytes(20)},
                                             {Record_Type::frame, 0, Bytes(200)},
                                             {Record_Type::loss, 2, losses},
                                             {Record_Type::loss, 0, Bytes(41)},
                                             {Record_Type::stream, 2, Bytes(12, std::byte{'x'})},
                                             {Record_Type::index, 65535, index},
                                             {Record_Type::index, 65535, Bytes(33)},
                                             {Record_Type::end, 65535, end}}) {
        const Reading reading = behind_a_frame(
            {.type = type, .stream = static_cast<std::uint16_t>(stream), .received = {}}, body);
        EXPECT_EQ(reading.end, Step::damage) << static_cast<int>(type);
        EXPECT_EQ(reading.records, 1U);
        EXPECT_THAT(reading.damage.what, HasSubstr("is not what such a record can be"));
    }
}

TEST(Trace, that_cannot_be_opened_says_why) {
    Trace_File file;
    EXPECT_EQ(file.open("/nowhere/trace"), "No such file or directory");
    EXPECT_EQ(file.open("/dev"), "it is no regular file");
    EXPECT_EQ(file.open("/dev/null"), "it is no regular file");
}

// ---- from a moment on ----

// Video with a key frame each second from 10 s on, and sound without any.
struct Long_Trace : Trace_Maker {
    explicit Long_Trace(int frames) {
        for (int i = 0; i < frames; ++i) {
            add(0, 10'000 + i * 40, i % 25 == 0 ? key : 0);
            add(1, 10'020 + i * 40, 0);
        }
    }
};

std::vector<std::uint64_t> begins(const Trace_Maker& maker, std::int64_t ms) {
    return find_begins(Trace_Memory(maker.bytes), ms * 1'000'000);
}

std::uint64_t offset_of(const Trace_Maker& maker, int frame) {
    std::uint64_t offset = 0;
    const Trace_Memory memory(maker.bytes);
    Trace_Reader reader(memory);
    EXPECT_FALSE(reader.open());
    for (int i = -1; i < frame && reader.next() == Step::record;) {
        offset = reader.record().offset;
        i += reader.record().head.type == Record_Type::frame ? 1 : 0;
    }
    return offset;
}

void expect_right_begins(const Trace_Maker& maker) {
    // 20.5 s: the key frame at 20 s is picture 250; before it lie 263 pictures of sound.
    EXPECT_THAT(begins(maker, 20'500), ElementsAre(offset_of(maker, 500), offset_of(maker, 525)));
    EXPECT_THAT(begins(maker, 0), ElementsAre(offset_of(maker, 0), offset_of(maker, 1)));
    EXPECT_THAT(begins(maker, 10'000), ElementsAre(offset_of(maker, 0), offset_of(maker, 1)));
    // 110 s is behind all: the last key frame is picture 975 of 1000.
    EXPECT_THAT(begins(maker, 110'000),
                ElementsAre(offset_of(maker, 1950), offset_of(maker, 1999)));
}

TEST(Trace_Seek, finds_where_to_begin_through_the_end) {
    Long_Trace maker(1000);
    maker.finish();
    expect_right_begins(maker);
}

TEST(Trace_Seek, finds_where_to_begin_in_a_trace_that_was_not_closed) {
    expect_right_begins(Long_Trace(1000));
}

TEST(Trace_Seek, finds_where_to_begin_before_there_is_an_index) {
    const Long_Trace maker(100);
    EXPECT_THAT(begins(maker, 12'500), ElementsAre(offset_of(maker, 100), offset_of(maker, 125)));
}

TEST(Trace_Seek, finds_where_to_begin_though_an_index_is_damaged) {
    Long_Trace maker(1000);
    const auto last = ElementsAre(offset_of(maker, 1950), offset_of(maker, 1999));
    const std::size_t index = before_records + index_entries_max * 2 + 1;  // the second one
    maker.bytes[maker.begins[index] + 60] ^= std::byte{1};
    EXPECT_THAT(begins(maker, 20'500), ElementsAre(offset_of(maker, 500), offset_of(maker, 525)));
    EXPECT_THAT(begins(maker, 110'000), last) << "by the last index, which is whole";
}

TEST(Trace_Seek, is_not_misled_by_a_payload_that_holds_a_trace) {
    Long_Trace inner(600);
    inner.finish();
    Trace_Maker maker;
    maker.add(0, 1000, key);
    ZAV_SHM_Frame_Header header = {};
    header.payload_length = static_cast<std::uint32_t>(inner.bytes.size());
    Bytes body;
    put(body, header);
    body.insert(body.end(), inner.bytes.begin(), inner.bytes.end());
    put(maker.bytes, Record_Head{.type = Record_Type::frame,
                                 .stream = 1,
                                 .flags = record_flag::foreign,
                                 .body_bytes = static_cast<std::uint32_t>(body.size()),
                                 .received = {2'000'000'000, 0},
                                 .body_checksum = checksum(body)});
    const std::uint64_t second = maker.bytes.size() - record_head_bytes;
    maker.bytes.insert(maker.bytes.end(), body.begin(), body.end());
    EXPECT_THAT(begins(maker, 5000), ElementsAre(maker.begins[before_records], second));
}

TEST(Trace_Seek, of_no_trace_is_nothing_and_of_an_empty_one_its_end) {
    EXPECT_TRUE(find_begins(Trace_Memory({}), 0).empty());
    Trace_Maker maker;
    EXPECT_THAT(begins(maker, 0), ElementsAre(maker.bytes.size(), maker.bytes.size()));
    maker.finish();
    EXPECT_THAT(begins(maker, 0), ElementsAre(maker.bytes.size(), maker.bytes.size()));
}

}  // namespace
