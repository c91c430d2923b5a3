// SPDX-License-Identifier: Apache-2.0
//
// What a hostile producer may leave in a slot, header and payload, through the reader of the safe
// layer and its judgement of sequences.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "bench/private_namespaces.h"
#include "frame/sequence_watch.h"
#include "frame/slot/slot_reader.h"
#include "fuzz/fuzz_target.h"
#include "stream/channel_names.h"
#include "stream/semaphore_roles.h"

namespace {

using namespace zav_shm;
using fuzz::require;

constexpr std::size_t page = 4096;
constexpr std::size_t slot_bytes = frame_header_bytes + page;

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

    Slot_Reader::Take take(const uint8_t* data, std::size_t size, Received_Frame& frame) {
        std::memset(segment_.mem_addr, 0, slot_bytes);
        if (size > 0) {
            std::memcpy(segment_.mem_addr, data, std::min(size, slot_bytes));
        }
        ready_.post_if_zero();
        return reader_.take(frame);
    }

    bool holds(const Received_Frame& frame) const {
        return frame.length == 0 ||
               std::memcmp(static_cast<const char*>(segment_.mem_addr) + frame_header_bytes,
                           frame.bytes.data(), frame.length) == 0;
    }

private:
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

std::unique_ptr<Slot> slot;
Sequence_Watch watch(true, true);

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
    Received_Frame frame;
    const Slot_Reader::Take taken = slot->take(data, size, frame);
    require(taken != Slot_Reader::Take::nothing, "a frame that was announced is looked at");
    require(frame.length <= page, "no frame is longer than the slot");
    if (taken != Slot_Reader::Take::frame) {
        return 0;
    }
    require(slot->holds(frame), "the payload is that of the slot");
    if (frame.verified) {
        require(frame.header.commit == commit_of(frame.header.sequence), "a frame is committed");
        require(frame.header.payload_length == frame.length, "the header says the length");
        static_cast<void>(codec_name(frame.header.codec));
    }
    if (watch.judge(frame) == Sequence_Watch::Verdict::hand_out && frame.verified) {
        require(watch.judge(frame) == Sequence_Watch::Verdict::repeated,
                "a frame is handed out once");
    }
    return 0;
}
