// SPDX-License-Identifier: Apache-2.0
//
// Rings and cards that are not what they should be.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>

#include "../frame/frames_fixture.h"
#include "ipc/file_lock.h"
#include "ipc/monotonic_clock.h"
#include "ring/ring_layout.h"
#include "watched_frames.h"

namespace {

using namespace zav_shm::watch;
using watched::stream_of;
using zav_shm::Reader_Card;
using zav_shm::Ring_Entry;
using zav_shm::Ring_Facts;

class Hostile_Files : public Frames_Without_Center {
protected:
    void SetUp() override {
        Frames_Without_Center::SetUp();
        make_folder("shm");
        std::filesystem::create_directory(rings_);
    }
    void TearDown() override {
        std::filesystem::remove_all(rings_);
        Frames_Without_Center::TearDown();
    }

    void put(const std::string& name, const std::string& content) const {
        std::ofstream(rings_ + "/" + name, std::ios::binary) << content;
    }

    template <class Value>
    static void lay(std::string& file, std::size_t offset, const Value& value) {
        std::memcpy(file.data() + offset, &value, sizeof value);
    }

    // A ring of four entries, which says what a test wants it to.
    static std::string ring(std::uint32_t head, std::uint32_t tail, const Ring_Entry& entry) {
        Ring_Facts facts;
        facts.index_count = 4;
        facts.data_offset = 8192;
        facts.data_bytes = 4096;
        facts.record_max = 4096;
        facts.epoch = 7;
        facts.created_ns = std::numeric_limits<std::int64_t>::min();
        facts.writer_pid = 1;
        std::string file(12288, '\0');
        lay(file, 0, facts);
        lay(file, zav_shm::ring_head_offset, head);
        lay(file, zav_shm::ring_tail_offset, tail);
        lay(file, zav_shm::ring_bytes_offset, std::numeric_limits<std::uint64_t>::max());
        for (std::size_t i = 0; i < 4; ++i) {
            lay(file, zav_shm::ring_header_bytes + i * sizeof entry, entry);
        }
        return file;
    }

    static Reader_Card card() {
        Reader_Card card;
        card.pid = static_cast<std::uint32_t>(getpid());
        card.since_ns = zav_shm::monotonic_ns();
        std::strcpy(card.consumer, "PLAYER");
        std::strcpy(card.producer, "CAM_LOOP");
        card.epoch = 7;
        return card;
    }

    // Held as if its reader lived.
    zav_shm::Descriptor put_card(const Reader_Card& card,
                                 const std::string& name = "0123456789abcdef.reader") const {
        std::string file(sizeof card, '\0');
        lay(file, 0, card);
        put(name, file);
        zav_shm::Descriptor held(open((rings_ + "/" + name).c_str(), O_RDWR | O_CLOEXEC));
        EXPECT_TRUE(zav_shm::take_file_lock(held.get()));
        return held;
    }

    const std::string rings_ = "/dev/shm/shm/rings";
    Collector collector_{"shm"};
};

TEST_F(Hostile_Files, what_is_no_ring_is_told_as_such) {
    put("EMPTY_0_0", "");
    put("TEXT_0_0", std::string(9999, 'x'));
    std::string cut = ring(2, 1, {});
    cut.resize(5000);
    put("CUT_0_0", cut);
    ASSERT_EQ(mkfifo((rings_ + "/FIFO_0_0").c_str(), 0600), 0);
    std::filesystem::create_directory(rings_ + "/FOLDER_0_0");
    std::filesystem::create_symlink("/etc/passwd", rings_ + "/LINK_0_0");
    const Snapshot snapshot = collector_.look();
    EXPECT_EQ(snapshot.streams.size(), 6U);
    for (const Stream& stream : snapshot.streams) {
        EXPECT_EQ(stream.state, Stream::State::unread) << stream.id.producer;
        EXPECT_FALSE(stream.problem.empty()) << stream.id.producer;
    }
}

TEST_F(Hostile_Files, ring_that_contradicts_itself_shows_nothing_wild) {
    Ring_Entry odd;
    odd.time_ns = std::numeric_limits<std::int64_t>::min();
    odd.flags = zav_shm::ring_flag::key;
    Ring_Entry future;
    future.time_ns = std::numeric_limits<std::int64_t>::max();
    future.offset = 64;
    future.length = 4000;
    future.flags = zav_shm::ring_flag::key;
    Ring_Entry outside;
    outside.offset = 0xFFFFFFC0U;
    outside.length = 0xFFFFFFFFU;
    outside.number_high = 0xFFFFFFFFU;
    for (const Ring_Entry& entry : {odd, future, outside}) {
        for (const std::uint32_t head : {0U, 1U, 3U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
            for (const std::uint32_t tail : {0U, 1U, 2U, 5U, 0x80000001U, 0xFFFFFFFFU}) {
                put("CAM_LOOP_0_0", ring(head, tail, entry));
                const auto held = put_card(card());
                collector_.look();
                const Stream stream = stream_of(collector_.look(), "CAM_LOOP");
                EXPECT_EQ(stream.state, Stream::State::left);
                EXPECT_LE(stream.history.bytes, 4096U);
                EXPECT_LE(stream.history.frames, 4U);
                EXPECT_GE(stream.history.ns, 0);
                EXPECT_GE(stream.age_ns.value_or(0), 0);
                EXPECT_EQ(stream.writer.command, "");
                EXPECT_EQ(stream.consumers.size(), 1U);
            }
        }
    }
}

TEST_F(Hostile_Files, what_is_no_card_is_not_shown) {
    put("0000000000000001.reader", "");
    put("0000000000000002.reader", std::string(4096, 'x'));
    ASSERT_EQ(mkfifo((rings_ + "/0000000000000003.reader").c_str(), 0600), 0);
    std::filesystem::create_symlink("/etc/passwd", rings_ + "/0000000000000004.reader");
    const Snapshot snapshot = collector_.look();
    EXPECT_TRUE(snapshot.streams.empty());
    EXPECT_TRUE(snapshot.elsewhere.empty());
}

TEST_F(Hostile_Files, card_cannot_speak_for_a_process_that_it_is_not_of) {
    put("CAM_LOOP_0_0", ring(1, 1, {}));
    Reader_Card before_its_process = card();
    before_its_process.since_ns = 1;
    const auto held = put_card(before_its_process);
    const Consumer first = stream_of(collector_.look(), "CAM_LOOP").consumers.at(0);
    EXPECT_EQ(first.process.pid, static_cast<std::uint32_t>(getpid()));
    EXPECT_EQ(first.process.command, "");
    const auto true_one = put_card(card(), "0123456789abcdee.reader");
    ASSERT_EQ(chown((rings_ + "/0123456789abcdee.reader").c_str(), 12345, 12345), 0);
    for (const Consumer& consumer : stream_of(collector_.look(), "CAM_LOOP").consumers) {
        EXPECT_EQ(consumer.process.command, "");
    }
}

TEST_F(Hostile_Files, counters_that_jump_and_fall_show_no_rate_below_zero) {
    put("CAM_LOOP_0_0", ring(1, 1, {}));
    Reader_Card wild = card();
    for (int i = 0; i < 4; ++i) {
        const bool is_high = i % 2 == 0;
        std::memset(static_cast<void*>(&wild.counters), is_high ? 0xFF : 0, sizeof wild.counters);
        std::memset(&wild.latency, is_high ? 0xFF : 1, sizeof wild.latency);
        wild.cursor = is_high ? 0x80000002U : 0xFFFFFFFFU;
        const auto held = put_card(wild);
        const Consumer consumer = stream_of(collector_.look(), "CAM_LOOP").consumers.at(0);
        EXPECT_GE(consumer.rates.value_or(Consumer::Rates{}).frames, 0);
        EXPECT_GE(consumer.rates.value_or(Consumer::Rates{}).bits, 0);
        EXPECT_GE(consumer.last_frame_age_ns.value_or(0), 0);
        EXPECT_LE(consumer.behind.value_or(0), 0x80000000U);
    }
}

TEST_F(Hostile_Files, card_without_a_lock_is_of_one_that_is_gone) {
    put("CAM_LOOP_0_0", ring(1, 1, {}));
    (void)put_card(card());
    const Stream stream = stream_of(collector_.look(), "CAM_LOOP");
    EXPECT_EQ(stream.consumers.at(0).state, Consumer::State::gone);
    EXPECT_EQ(stream.consumers.at(0).name, "PLAYER");
}

TEST_F(Hostile_Files, name_is_passed_on_as_it_is_and_ends_within_its_field) {
    put("A\x1b[2J\n<b>_0_0", ring(1, 1, {}));
    Reader_Card odd = card();
    std::memset(odd.consumer, '<', sizeof odd.consumer);
    const auto held = put_card(odd);
    const Snapshot snapshot = collector_.look();
    EXPECT_EQ(snapshot.streams.at(0).id.producer, "A\x1b[2J\n<b>");
    EXPECT_EQ(snapshot.elsewhere.at(0).name, std::string(31, '<'));
}

}  // namespace
