// SPDX-License-Identifier: Apache-2.0
//
// Producers that are silent, readers that do not read or lose frames.
#include <array>
#include <cstdio>

#include "apps/doctor/checks.h"
#include "ipc/monotonic_clock.h"

namespace zav_shm::doctor {

namespace {

using watch::Consumer;
using watch::Stream;

std::string seconds_text(std::int64_t ns) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f s",
                  static_cast<double>(ns) / static_cast<double>(ns_per_second));
    return text.data();
}

std::string stream_text(const watch::Stream_Id& id) {
    return id.producer + "/" + std::to_string(id.channel) + "/" + std::to_string(id.stream);
}

std::string process_of(const watch::Process& process) {
    return process.pid == 0 ? std::string()
                            : ", " + process_text(static_cast<pid_t>(process.pid), process.command);
}

std::string reader_text(const Consumer& consumer) {
    return "reader " + (consumer.name.empty() ? "(tap)" : consumer.name) +
           (consumer.kind == Consumer::Kind::fixed
                ? "/" + std::to_string(consumer.channel) + "/" + std::to_string(consumer.stream)
                : "") +
           " of " + stream_text(consumer.of) + process_of(consumer.process);
}

void check_publisher(const Host& host, const Stream& stream, Findings& findings) {
    const std::string object = "publisher of " + stream_text(stream.id) + process_of(stream.writer);
    const std::int64_t limit_ns = std::chrono::nanoseconds(host.request.silence).count();
    const bool is_silent = !stream.age_ns || *stream.age_ns > limit_ns;
    if (stream.writer.is_stopped) {
        findings.push_back({Severity::warning, "silent_producer", object,
                            "is stopped (SIGSTOP or a debugger)",
                            "kill -CONT " + std::to_string(stream.writer.pid)});
    } else if (is_silent) {
        findings.push_back(
            {Severity::warning, "silent_producer", object,
             stream.age_ns
                 ? "is registered and has published nothing for " + seconds_text(*stream.age_ns) +
                       ", the limit is " + seconds_text(limit_ns)
                 : "is registered and has never published a frame",
             "see what it waits for: its camera, network or file; --silence SECONDS sets the "
             "limit for slow streams"});
    }
}

// Whether a producer of the fixed interface is registered leaves no trace: only that its consumers
// wait for frames.
void check_slot(const Stream& stream, Findings& findings) {
    if (!stream.consumers.empty() && stream.rates && stream.rates->frames == 0) {
        findings.push_back(
            {Severity::warning, "silent_producer", "producer of " + stream_text(stream.id),
             "gives no frame to its " + std::to_string(stream.consumers.size()) + " consumers",
             "start the program that produces it, or see what it waits for"});
    }
}

std::string losses_text(const Consumer::Rates& rates) {
    std::array<char, 160> text{};
    std::snprintf(text.data(), text.size(),
                  "loses %.1f frames/s (overtaken %.1f, left out %.1f, no memory %.1f)",
                  rates.lost(), rates.overtaken, rates.left_out, rates.no_memory);
    return text.data();
}

std::string remedy_of(const Consumer::Rates& rates) {
    if (rates.no_memory > 0) {
        return "give the reader's process more memory (MemoryMax=, ulimit -v)";
    }
    return rates.overtaken > 0
               ? "make the reader faster, or its producer's history longer (\"history_bytes\")"
               : "see what the publisher says: it offers frames that do not fit its history";
}

void check_reader(const Consumer& consumer, Findings& findings) {
    const std::string behind =
        consumer.behind ? std::to_string(*consumer.behind) + " frames behind" : "frames wait";
    if (consumer.state == Consumer::State::stopped) {
        findings.push_back({Severity::warning, "reader_does_not_read", reader_text(consumer),
                            "is stopped (SIGSTOP or a debugger), " + behind,
                            "kill -CONT " + std::to_string(consumer.process.pid)});
    } else if (consumer.state == Consumer::State::not_reading) {
        findings.push_back({Severity::warning, "reader_does_not_read", reader_text(consumer),
                            "is paired and has taken no frame for " +
                                seconds_text(consumer.not_reading_ns) + ", " + behind,
                            "see what it does between two frames, or end it"});
    } else if (consumer.state == Consumer::State::reading && consumer.rates &&
               consumer.rates->lost() > 0) {
        findings.push_back({Severity::warning, "reader_loses_frames", reader_text(consumer),
                            losses_text(*consumer.rates), remedy_of(*consumer.rates)});
    }
}

void check_unread(const Stream& stream, Findings& findings) {
    findings.push_back({Severity::note, "rights", "history of " + stream_text(stream.id),
                        "cannot be read: " + stream.problem,
                        "run as root, or as a member of the center's group"});
}

}  // namespace

Findings check_streams(const Host& host) {
    Findings findings;
    std::size_t readers = 0;
    for (const Stream& stream : host.snapshot.streams) {
        if (stream.state == Stream::State::live) {
            check_publisher(host, stream, findings);
        } else if (stream.state == Stream::State::slot) {
            check_slot(stream, findings);
        } else if (stream.state == Stream::State::unread) {
            check_unread(stream, findings);
        }
        for (const Consumer& consumer : stream.consumers) {
            ++readers;
            check_reader(consumer, findings);
        }
    }
    for (const Consumer& consumer : host.snapshot.elsewhere) {
        check_reader(consumer, findings);
    }
    if (findings.empty()) {
        findings.push_back(well("streams",
                                std::to_string(host.snapshot.streams.size()) + " streams",
                                std::to_string(readers) + " readers read and lose nothing"));
    }
    return findings;
}

}  // namespace zav_shm::doctor
