// SPDX-License-Identifier: Apache-2.0
//
// What a hostile writer may put into a ring, before and while it is read, through everything that a
// reader can do with it.
//
// The input: what the file begins with, then what reader and writer do in turns.
//
//   bytes
//       1  bit 0: read by copying, not through a mapping; bit 1: the file is not as long as its
//          header says, but as the next 4 bytes say
//      48  the header's constant part
//      12  head, tail, state
//       1  how many entries follow, of 32 bytes each
//       1  how many blocks of 16 bytes follow, which lie at the begin of the records
//     ...  steps: a byte that says which, and its arguments
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "bench/private_namespaces.h"
#include "fuzz/fuzz_target.h"
#include "ring/ring_follower.h"

namespace {

using namespace zav_shm;
using fuzz::require;
using Look = Ring_Reader::Look;
using Reading = Ring_Memory::Reading;

constexpr std::uint64_t file_bytes_max = 64 * 1024;
constexpr int steps_max = 500;
const std::string path = "/dev/shm/ring";

/// Takes values off the front of the input; zeros when it is used up.
class Input {
public:
    Input(const uint8_t* data, std::size_t size) : left_(data, size) {}

    bool is_empty() const { return left_.empty(); }

    void take(std::span<std::byte> into) {
        const std::size_t count = std::min(into.size(), left_.size());
        if (count > 0) {
            std::memcpy(into.data(), left_.data(), count);
        }
        std::fill(into.begin() + static_cast<std::ptrdiff_t>(count), into.end(), std::byte{0});
        left_ = left_.subspan(count);
    }

    template <typename Value>
    Value take() {
        Value value{};
        take(std::as_writable_bytes(std::span(&value, 1)));
        return value;
    }

private:
    std::span<const uint8_t> left_;
};

/// The file as its writer has it.
class File {
public:
    ~File() {
        close(descriptor_);
        unlink(path.c_str());
    }
    File() : descriptor_(make()) {}
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    void fill(Input& input, bool has_own_length) {
        facts_ = input.take<Ring_Facts>();
        const std::uint64_t whole = std::uint64_t{facts_.data_offset} + facts_.data_bytes;
        const std::uint64_t length = has_own_length ? input.take<std::uint32_t>() : whole;
        resize(std::min(length, file_bytes_max));
        put(0, std::as_bytes(std::span(&facts_, 1)));
        for (const std::size_t offset : {ring_head_offset, ring_tail_offset, ring_state_offset}) {
            put_word(offset, input.take<std::uint32_t>());
        }
        const auto entries = input.take<std::uint8_t>();
        const auto blocks = input.take<std::uint8_t>();
        for (std::uint32_t i = 0; i < entries; ++i) {
            put_entry(i, input.take<Ring_Entry>());
        }
        for (std::uint64_t i = 0; i < blocks; ++i) {
            const auto block = input.take<std::array<std::byte, 16>>();
            put(facts_.data_offset + i * sizeof block, block);
        }
    }

    void put(std::uint64_t offset, std::span<const std::byte> bytes) const {
        if (offset < length_) {
            const std::uint64_t count = std::min<std::uint64_t>(bytes.size(), length_ - offset);
            require(pwrite(descriptor_, bytes.data(), static_cast<std::size_t>(count),
                           static_cast<off_t>(offset)) == static_cast<ssize_t>(count),
                    "the file can be written");
        }
    }
    void put_word(std::uint64_t offset, std::uint32_t value) const {
        put(offset, std::as_bytes(std::span(&value, 1)));
    }
    void put_entry(std::uint32_t number, const Ring_Entry& entry) const {
        put(ring_header_bytes + std::uint64_t{number} * sizeof entry,
            std::as_bytes(std::span(&entry, 1)));
    }
    void resize(std::uint64_t length) {
        length_ = length;
        require(ftruncate(descriptor_, static_cast<off_t>(length)) == 0, "the file can be resized");
    }

    /// Another file gets the name, of the same content but for its head.
    void replace(std::uint32_t head) {
        std::vector<std::byte> content(static_cast<std::size_t>(length_));
        require(pread(descriptor_, content.data(), content.size(), 0) ==
                    static_cast<ssize_t>(content.size()),
                "the file can be read");
        unlink(path.c_str());
        close(descriptor_);
        descriptor_ = make();
        resize(length_);
        put(0, content);
        put_word(ring_head_offset, head);
    }

    std::uint64_t length() const { return length_; }

    std::optional<std::uint32_t> word(std::uint64_t offset) const {
        std::uint32_t value = 0;
        return pread(descriptor_, &value, sizeof value, static_cast<off_t>(offset)) == sizeof value
                   ? std::optional(value)
                   : std::nullopt;
    }
    bool holds(std::uint64_t offset, std::span<const std::byte> bytes) const {
        std::vector<std::byte> there(bytes.size());
        const ssize_t got =
            pread(descriptor_, there.data(), there.size(), static_cast<off_t>(offset));
        return got == static_cast<ssize_t>(there.size()) &&
               std::equal(there.begin(), there.end(), bytes.begin());
    }

private:
    static int make() {
        return ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, S_IRUSR | S_IWUSR);
    }

    int descriptor_;
    std::uint64_t length_ = 0;
    Ring_Facts facts_;
};

/// Reader and writer of one file, in turns.
class Game {
public:
    Game(Input& input, Reading reading, File& file)
        : input_(input), reading_(reading), file_(file), follower_(path, reading) {}

    void play() {
        follower_.changes_over();
        for (int step = 0; step < steps_max && !input_.is_empty(); ++step) {
            const auto which = input_.take<std::uint8_t>();
            if (follower_.reader() == nullptr) {
                has_record_ = false;
                require(bool{follower_.problem()}, "what is not read is told");
                require(!follower_.problem().text.empty(), "and told in words");
            }
            if (follower_.reader() == nullptr || which % 2 == 0) {
                write(which / 2 % 6);
            } else {
                read(which / 2 % 12);
            }
        }
    }

private:
    Ring_Reader& reader() const { return *follower_.reader(); }

    // ---- the writer, and whoever else may change files ----

    void write(int which) {
        switch (which) {
            case 0:
                file_.put_word(word_offset(), input_.take<std::uint32_t>());
                break;
            case 1: {
                const auto number = input_.take<std::uint8_t>();
                file_.put_entry(number, input_.take<Ring_Entry>());
                break;
            }
            case 2: {
                const auto offset = input_.take<std::uint32_t>();
                file_.put(offset % file_bytes_max, input_.take<std::array<std::byte, 8>>());
                break;
            }
            case 3:
                // Who maps a ring trusts its writer not to shrink it: the process would be killed.
                if (reading_ == Reading::copied) {
                    file_.resize(input_.take<std::uint32_t>() % file_bytes_max);
                }
                break;
            case 4:
                file_.replace(input_.take<std::uint32_t>());
                break;
            default:
                wait();
                follow();
        }
    }

    // Not too often: many in a row become real sleeps, and the end of a watch of names takes the
    // kernel a millisecond.
    void wait() {
        int& left = follower_.reader() != nullptr ? waits_left_ : waits_for_names_left_;
        if (left-- > 0) {
            follower_.wait(0);
        }
    }

    std::uint64_t word_offset() {
        constexpr std::array<std::uint64_t, 4> offsets{ring_head_offset, ring_tail_offset,
                                                       ring_state_offset, ring_head_offset};
        return offsets[input_.take<std::uint8_t>() % offsets.size()];
    }

    void follow() {
        if (follower_.changes_over()) {
            require(follower_.reader() != nullptr && !follower_.problem(), "a ring is taken");
            has_record_ = false;
        }
    }

    // ---- the reader ----

    void read(int which) {
        switch (which) {
            case 0:
                look();
                break;
            case 1:
                copy_part();
                break;
            case 2:
                reader().is_in_reach(input_.take<std::uint64_t>());
                break;
            case 3:
                find(false);
                break;
            case 4:
                find(true);
                break;
            case 5:
                follow();
                break;
            case 6:
                check_ends();
                break;
            case 7:
                reader().advance();
                break;
            case 8:
                move();
                break;
            case 9:
                read_to_the_end();
                break;
            case 10:
                ask();
                break;
            default:
                follower_.give_up("of a step");
                has_record_ = false;
        }
    }

    Look look() {
        const Look seen = reader().look(record_);
        has_record_ = seen == Look::record;
        if (has_record_) {
            check_record();
        }
        const auto head = file_.word(ring_head_offset);
        const auto tail = file_.word(ring_tail_offset);
        const auto cursor = static_cast<std::uint32_t>(reader().cursor());
        if (head && tail && is_of_the_file()) {
            require(seen != Look::nothing || ring_distance(*head, cursor) < 0,
                    "there is nothing only where the head is behind the cursor");
            require(seen != Look::overtaken || ring_distance(*tail, cursor) > 0,
                    "overtaken is who is behind the tail");
        }
        return seen;
    }

    // The name may have gone to another file, and the reader stays with its own.
    bool is_of_the_file() const {
        struct stat status {};
        return stat(path.c_str(), &status) == 0 && status.st_ino == reader().memory().inode();
    }

    // Nobody writes meanwhile, so that what is found has to be in reach and in the file.
    void check_record() {
        const Ring_Facts& facts = reader().memory().facts();
        const Ring_Entry& entry = record_.entry;
        require(record_.number == reader().cursor(), "the record is the one at the cursor");
        require(entry.length <= facts.record_max, "no record is longer than the greatest");
        require(std::uint64_t{entry.offset} + entry.length <= facts.data_bytes,
                "a record lies among the records");
        require(reader().is_in_reach(record_.number), "a record that was found is in reach");
        std::vector<std::byte> bytes(entry.length);
        const bool is_there = reader().copy(record_, 0, bytes);
        const std::uint64_t offset = reader().memory().record_offset(entry);
        if (reading_ == Reading::mapped) {
            require(is_there && record_.bytes.size() == bytes.size(), "a mapped record is there");
            require(std::equal(bytes.begin(), bytes.end(), record_.bytes.begin()),
                    "what is copied is what lies there");
        } else {
            require(record_.bytes.empty(), "where nothing is mapped, nothing is shown");
        }
        if (is_of_the_file()) {
            require(!is_there || file_.holds(offset, bytes), "a record's bytes are the file's");
            require(is_there || offset + entry.length > file_.length(),
                    "what the file has can be copied");
        }
    }

    void copy_part() {
        const auto offset = input_.take<std::uint32_t>();
        const auto length = input_.take<std::uint16_t>();
        if (!has_record_) {
            return;
        }
        std::vector<std::byte> bytes(length);
        const bool is_part = std::uint64_t{offset} + length <= record_.entry.length;
        require(!reader().copy(record_, offset, bytes) || is_part, "copied is a part of a record");
    }

    void find(bool is_onwards) {
        const auto from = number();
        const auto latest_ns = input_.take<std::int64_t>();
        const auto is_wanted = [latest_ns](const Ring_Entry& entry) {
            return (entry.flags & ring_flag::key) != 0 && entry.time_ns <= latest_ns;
        };
        const auto found =
            is_onwards ? reader().find_on(from, is_wanted) : reader().find_back(from, is_wanted);
        if (!found) {
            return;
        }
        require(is_onwards ? *found >= from : *found <= from, "found on the right side");
        const std::uint64_t before = reader().cursor();
        reader().move_to(*found);
        if (look() == Look::record) {  // a ring may be broken as a whole
            require(is_wanted(record_.entry), "what is found is what was wanted");
        }
        reader().move_to(before);
        has_record_ = false;
    }

    void check_ends() const {
        constexpr std::uint64_t far = std::uint64_t{1} << 33U;
        require(reader().safe_oldest() - reader().oldest() < far, "the safe one is not far away");
    }

    std::uint64_t number() {
        switch (input_.take<std::uint8_t>() % 5) {
            case 0:
                return reader().newest();
            case 1:
                return reader().oldest();
            case 2:
                return reader().safe_oldest();
            case 3:
                return input_.take<std::uint64_t>();
            default:
                return reader().cursor() + input_.take<std::uint8_t>() - 128;
        }
    }

    void move() {
        reader().move_to(number());
        has_record_ = false;
    }

    // As applications do it: it comes to an end while nobody writes.
    void read_to_the_end() {
        std::uint64_t left = std::uint64_t{reader().memory().facts().index_count} + 4;
        for (;;) {
            switch (look()) {
                case Look::record:
                    reader().advance();
                    break;
                case Look::overtaken:
                    reader().move_to(reader().safe_oldest());
                    break;
                default:
                    return;
            }
            require(left-- > 0, "reading comes to an end");
        }
    }

    void ask() {
        reader().is_closed();
        reader().has_news();
        reader().wait(0);
        reader().wake();
        follower_.wake();
        require(!reader().memory().has_writer(), "nobody holds the lock");
        require(reading_ == Reading::copied || !reader().memory().has_shrunk(),
                "nobody shrinks what is mapped");
    }

    Input& input_;
    const Reading reading_;
    File& file_;
    Ring_Follower follower_;
    Ring_Record record_;
    bool has_record_ = false;
    int waits_left_ = 40;
    int waits_for_names_left_ = 3;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    fuzz::silence_standard_output();
    if (std::getenv("ZAV_SHM_PRIVATE_NAMESPACES") == nullptr) {
        require(bench::enter_private_namespaces(), "private namespaces can be entered");
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    const auto options = input.take<std::uint8_t>();
    File file;
    file.fill(input, (options & 2U) != 0);
    Game(input, (options & 1U) != 0 ? Reading::copied : Reading::mapped, file).play();
    return 0;
}
