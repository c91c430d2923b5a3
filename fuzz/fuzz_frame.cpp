// SPDX-License-Identifier: Apache-2.0
//
// What a hostile producer may leave where the safe layer looks for frames: in a slot, header and
// payload, and in the records of a ring.
//
// The input:
//
//       1  0: the rest is what the slot holds. Else a ring: less 1, bits 0 and 1 the overflow
//          policy; bit 2 start_at_key_frame; bit 3 key_frame_after_loss; bit 4: frames are viewed,
//          not copied
//     ...  steps: a byte that says which, and its arguments
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "bench/private_namespaces.h"
#include "frame/frame_record.h"
#include "frame/frame_source.h"
#include "frame/slot/slot_reader.h"
#include "fuzz/fuzz_target.h"
#include "ring/ring_writer.h"
#include "stream/channel_names.h"
#include "stream/semaphore_roles.h"

namespace {

using namespace zav_shm;
using fuzz::require;

constexpr std::size_t page = 4096;
constexpr std::size_t header_bytes = sizeof(ZAV_SHM_Frame_Header);
constexpr std::size_t slot_bytes = frame_header_bytes + page;

void judge_verified(const ZAV_SHM_Frame_Header& header) {
    require(header.magic == frame_magic && header.version == frame_version, "the header is ours");
    static_cast<void>(codec_name(header.codec));
}

void judge_foreign(ZAV_SHM_Frame_Header header) {
    header.payload_length = 0;
    static constexpr ZAV_SHM_Frame_Header nothing = {};
    require(std::memcmp(&header, &nothing, sizeof header) == 0, "a foreign header says nothing");
}

// ---- a slot ----

/// A slot with its reader; the fuzzer stands for producer and relay.
class Slot {
public:
    Slot()
        : names_(make_names()),
          segment_(names_.shm_path.c_str(), O_CREAT | O_RDWR, 0600, static_cast<int>(slot_bytes)),
          ready_(names_.sem_path_src.c_str(), true),
          done_(names_.sem_path_dst.c_str(), true),
          present_(names_.sem_path_exist.c_str(), true),
          reader_(names_.shm_path, names_.sem_path_src, names_.sem_path_dst,
                  names_.sem_path_exist) {
        require(reader_.is_usable(), "the slot can be read");
    }

    void play(std::span<const std::uint8_t> content) {
        std::memset(segment_.mem_addr, 0, slot_bytes);
        if (!content.empty()) {
            std::memcpy(segment_.mem_addr, content.data(), std::min(content.size(), slot_bytes));
        }
        ready_.post_if_zero();
        Slot_Frame frame;
        std::vector<std::byte> copy;
        const Slot_Reader::Take taken =
            reader_.take(frame, [&](const Slot_Frame& found, std::span<const std::byte> payload) {
                require(payload.size() <= page, "no frame is longer than the slot");
                require(found.header.payload_length == payload.size(),
                        "the header says the length");
                copy.assign(payload.begin(), payload.end());
                return true;
            });
        require(taken != Slot_Reader::Take::nothing, "a frame that was announced is looked at");
        require(taken != Slot_Reader::Take::no_memory && taken != Slot_Reader::Take::unmapped,
                "there are slot and memory");
        if (taken == Slot_Reader::Take::frame) {
            judge(frame, copy);
        }
    }

private:
    void judge(const Slot_Frame& frame, const std::vector<std::byte>& copy) const {
        require(copy.size() == frame.header.payload_length, "the payload is what was announced");
        require(copy.empty() ||
                    std::memcmp(static_cast<const char*>(segment_.mem_addr) + frame_header_bytes,
                                copy.data(), copy.size()) == 0,
                "the payload is that of the slot");
        if (frame.verified) {
            judge_verified(frame.header);
            require(frame.header.commit == commit_of(frame.header.sequence),
                    "a frame is committed");
        } else {
            judge_foreign(frame.header);
        }
    }

    static IPC_SHM_DST_CTRL_INFO make_names() {
        mkdir("/dev/shm/shm", S_IRWXU);
        IPC_SHM_CTRL_INFO::set_shm_root_path("shm");
        IPC_SHMEMORY::set_root_path("/dev/shm");
        return IPC_SHM_DST_CTRL_INFO({"PLAYER", 0, 0}, "CAM_LOOP");
    }

    const IPC_SHM_DST_CTRL_INFO names_;
    IPC_SHMEMORY segment_;
    SEM_CTRL ready_;
    SEM_CTRL done_;
    SEM_CTRL present_;
    Slot_Reader reader_;
};

// ---- a ring ----

/// Takes values off the front of the input; zeros when it is used up.
class Input {
public:
    explicit Input(std::span<const std::uint8_t> bytes) : left_(bytes) {}

    bool is_empty() const { return left_.empty(); }

    std::span<const std::byte> take_bytes(std::size_t wanted) {
        const auto taken = left_.first(std::min(wanted, left_.size()));
        left_ = left_.subspan(taken.size());
        return std::as_bytes(taken);
    }

    template <typename Value>
    Value take() {
        Value value{};
        const auto bytes = take_bytes(sizeof value);
        if (!bytes.empty()) {
            std::memcpy(&value, bytes.data(), bytes.size());
        }
        return value;
    }

private:
    std::span<const std::uint8_t> left_;
};

/// A ring whose records are what the fuzzer says, and the way of a subscriber through it.
class Ring {
public:
    Ring(std::uint8_t options, Input& input)
        : input_(input),
          views_((options & 16U) != 0),
          writer_(Ring_Writer::open_private(size, problem_)),
          source_(rules_of(options), Ring_Memory::Reading::mapped) {
        require(writer_ != nullptr, "a ring can be had");
        source_.read_from(writer_->memory());
    }

    void play() {
        for (int steps = 0; steps < steps_max && !input_.is_empty(); ++steps) {
            switch (input_.take<std::uint8_t>() % 6) {
                case 0:
                    write_anything();
                    break;
                case 1:
                    write_frame();
                    break;
                case 2:
                    read_one();
                    break;
                case 3:
                    read_all();
                    break;
                case 4:
                    seek();
                    break;
                default:
                    ask();
                    break;
            }
        }
        read_all();
    }

private:
    static constexpr int steps_max = 200;
    static constexpr Ring_Size size{8192, static_cast<std::uint32_t>(slot_bytes), 8};

    static Frame_Cursor::Rules rules_of(std::uint8_t options) {
        Frame_Cursor::Rules rules;
        rules.overflow = static_cast<Overflow_Policy>((options & 3U) % 3);
        rules.start_at_key_frame = (options & 4U) != 0;
        rules.key_frame_after_loss = (options & 8U) != 0;
        return rules;
    }

    void write(std::span<const std::byte> bytes, std::uint32_t flags) {
        const auto room = writer_->reserve(bytes.size());
        if (room.size() < bytes.size()) {
            return;
        }
        std::copy(bytes.begin(), bytes.end(), room.begin());
        Record_Tags tags;
        tags.flags = flags;
        tags.time_ns = ++now_ns_;
        const std::uint64_t number = writer_->commit(bytes.size(), tags);
        if (number != 0) {
            records_[number] = {{bytes.begin(), bytes.end()}, flags};
        }
    }

    // A record of any bytes and any flags.
    void write_anything() {
        const auto flags = input_.take<std::uint8_t>();
        const auto length = input_.take<std::uint16_t>();
        write(input_.take_bytes(length % slot_bytes), flags);
    }

    // One that is a frame, with anything in it that a publisher may say.
    void write_frame() {
        ZAV_SHM_Frame_Header header = {};
        header.magic = frame_magic;
        header.version = frame_version;
        header.flags = input_.take<std::uint8_t>();
        header.sequence = input_.take<std::uint64_t>();
        header.epoch = input_.take<std::uint8_t>();
        header.codec = input_.take<std::uint32_t>();
        header.payload_length = input_.take<std::uint8_t>();
        std::vector<std::byte> bytes(header_bytes + header.payload_length);
        std::memcpy(bytes.data(), &header, sizeof header);
        write(bytes, frame_record::flags_of(header.flags));
    }

    Frame_Source::Got read_one() {
        const std::uint64_t invalid = source_.invalid();
        const auto got = views_ ? source_.view_next(view_) : source_.copy_next(frame_);
        has_view_ = views_ && got == Frame_Source::Got::frame;
        if (got == Frame_Source::Got::frame) {
            if (views_) {
                judge(view_, view_.payload());
                require(view_.is_whole(), "nobody overwrites it");
            } else {
                judge(frame_, frame_.payload());
            }
        }
        require((got == Frame_Source::Got::missed) == (source_.invalid() > invalid),
                "what is no frame is told, and nothing else");
        require(source_.no_memory() == 0 && source_.torn() == 0, "there is memory and peace");
        return got;
    }

    void judge(const Frame_Facts& facts, std::span<const std::byte> payload) {
        const auto found = records_.find(facts.number);
        require(found != records_.end(), "a frame is a record");
        const auto& [bytes, flags] = found->second;
        require(bytes.size() >= header_bytes && bytes.size() - header_bytes == payload.size() &&
                    facts.header.payload_length == payload.size(),
                "the frame is as long as its record");
        require(std::equal(payload.begin(), payload.end(), bytes.begin() + header_bytes),
                "the payload is that of the record");
        require(facts.verified == ((flags & frame_record::foreign) == 0),
                "foreign frames are called so");
        if (facts.verified) {
            judge_verified(facts.header);
            require(std::memcmp(&facts.header, bytes.data(), header_bytes) == 0,
                    "the header is that of the record");
        } else {
            judge_foreign(facts.header);
        }
        require(facts.number > last_, "nothing is handed out twice");
        last_ = facts.number;
    }

    void read_all() {
        for (std::uint32_t left = writer_->memory()->facts().index_count + 1;; --left) {
            require(left > 0, "reading comes to an end");
            if (read_one() == Frame_Source::Got::nothing) {
                return;
            }
        }
    }

    void seek() {
        const auto at = static_cast<Start::At>(input_.take<std::uint8_t>() % 4);
        source_.seek({at, std::chrono::nanoseconds(input_.take<std::int64_t>())});
        last_ = 0;
    }

    void ask() {
        static_cast<void>(source_.changes_over());
        static_cast<void>(source_.waits_for_key_frame());
        source_.wake();
        source_.wait(0);
        require(!source_.problem(), "the ring itself is in order");
        if (has_view_ && view_.is_whole()) {
            const auto& bytes = records_.at(view_.number).first;
            require(std::equal(view_.payload().begin(), view_.payload().end(),
                               bytes.begin() + header_bytes),
                    "what is called whole is whole");
        }
    }

    Input& input_;
    const bool views_;
    Ring_Problem problem_;
    std::unique_ptr<Ring_Writer> writer_;
    Frame_Source source_;
    std::map<std::uint64_t, std::pair<std::vector<std::byte>, std::uint32_t>> records_;
    std::uint64_t last_ = 0;  // that was handed out since the latest seek
    std::int64_t now_ns_ = 0;
    Received_Frame frame_;
    Frame_View view_;
    bool has_view_ = false;  // it shows a frame
};

std::unique_ptr<Slot> slot;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    fuzz::silence_standard_output();
    if (std::getenv("ZAV_SHM_PRIVATE_NAMESPACES") == nullptr) {
        require(bench::enter_private_namespaces(), "private namespaces can be entered");
    }
    slot = std::make_unique<Slot>();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::span<const std::uint8_t> rest(data + 1, size - 1);
    if (data[0] == 0) {
        slot->play(rest);
    } else {
        Input input(rest);
        Ring(static_cast<std::uint8_t>(data[0] - 1), input).play();
    }
    return 0;
}
