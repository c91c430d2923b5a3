// SPDX-License-Identifier: Apache-2.0
//
// The two copies of a frame's way, into the slot and out of it, through a real segment and
// without any semaphore, beside a plain memcpy of the same size in ordinary memory.

#include <benchmark/benchmark.h>
#include <fcntl.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "bench/bench_channel.h"
#include "bench/private_namespaces.h"
#include "ipc/zav_shm.h"
#include "stream/channel_end.h"

namespace {

class Slot_Writer : public SHM_Stream_Distributor {
public:
    explicit Slot_Writer(const std::string& segment) { open_slot(segment, O_RDWR); }
    bool is_ready() const { return slot_is_mapped(); }
};

class Slot_Reader : public SHM_Stream_Receiver {
public:
    explicit Slot_Reader(const std::string& segment) { open_slot(segment, O_RDONLY); }
    bool is_ready() const { return slot_is_mapped(); }
};

/// A segment of the benchmark's size that is gone afterwards.
class Segment {
public:
    explicit Segment(std::size_t bytes)
        : name_(zav_shm::bench::producer_names().shm_path),
          segment_(name_.c_str(), O_CREAT | O_RDWR, 0600, static_cast<int>(bytes)) {}
    ~Segment() { segment_.zav_shm_destroy(); }
    Segment(const Segment&) = delete;
    Segment& operator=(const Segment&) = delete;

    const std::string& name() const { return name_; }

private:
    std::string name_;
    IPC_SHMEMORY segment_;
};

/// Memory at the start of a page, as a slot is: a buffer 16 bytes off, which malloc likes to
/// give, makes a 4 KiB copy two to four times slower, since its stores then hit the same page
/// offsets as the loads that follow.
class Page_Buffer {
public:
    explicit Page_Buffer(std::size_t bytes)
        : memory_(static_cast<unsigned char*>(std::aligned_alloc(page_bytes, bytes))) {
        std::memset(memory_.get(), 1, bytes);
    }
    unsigned char* data() { return memory_.get(); }

private:
    static constexpr std::size_t page_bytes = 4096;  // all sizes measured are multiples of it

    struct Free {
        void operator()(void* memory) const { std::free(memory); }
    };
    std::unique_ptr<unsigned char, Free> memory_;
};

std::size_t size_of(const benchmark::State& state) {
    return static_cast<std::size_t>(state.range(0));
}

void count_bytes(benchmark::State& state) {
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void copy_into_slot(benchmark::State& state) {
    const Segment segment(size_of(state));
    Slot_Writer writer(segment.name());
    Page_Buffer frame(size_of(state));
    const int length = static_cast<int>(size_of(state));
    if (!writer.is_ready()) {
        state.SkipWithError("the segment could not be mapped");
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(writer.distribute_frame(frame.data(), length));
        benchmark::ClobberMemory();
    }
    count_bytes(state);
}

void copy_out_of_slot(benchmark::State& state) {
    const Segment segment(size_of(state));
    Slot_Reader reader(segment.name());
    Page_Buffer frame(size_of(state));
    const int length = static_cast<int>(size_of(state));
    if (!reader.is_ready()) {
        state.SkipWithError("the segment could not be mapped");
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(reader.receive_frame(frame.data(), length));
        benchmark::ClobberMemory();
    }
    count_bytes(state);
}

void plain_memcpy(benchmark::State& state) {
    Page_Buffer source(size_of(state));
    Page_Buffer destination(size_of(state));
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::memcpy(destination.data(), source.data(), size_of(state)));
        benchmark::ClobberMemory();
    }
    count_bytes(state);
}

void frame_sizes(benchmark::internal::Benchmark* bench) {
    for (const std::int64_t kib : {4, 64, 256, 1024}) {
        bench->Arg(kib * 1024);
    }
}

BENCHMARK(plain_memcpy)->Apply(frame_sizes);
BENCHMARK(copy_into_slot)->Apply(frame_sizes);
BENCHMARK(copy_out_of_slot)->Apply(frame_sizes);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv) ||
        !zav_shm::bench::enter_private_namespaces()) {
        return EXIT_FAILURE;
    }
    if (!zav_shm::bench::prepare_names()) {
        std::perror("/dev/shm/shm");
        return EXIT_FAILURE;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return EXIT_SUCCESS;
}
