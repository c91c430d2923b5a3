// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/top/top_rows.h"

#include <algorithm>

#include "apps/tool/problem.h"
#include "apps/tool/top/screen_line.h"
#include "apps/tool/top/short_figures.h"
#include "apps/watch/snapshot_json.h"
#include "frame/frame_header.h"
#include "ipc/monotonic_clock.h"

namespace zav_shm::tool {

namespace {

using watch::Consumer;
using watch::Stream;

// Widths of columns, beside the name's. 80 columns hold them and 13 characters more.
constexpr std::size_t state_width = 7;
constexpr std::size_t figure_width = 6;
constexpr std::size_t wide_figure_width = 7;
constexpr std::size_t name_width_min = 20;
constexpr std::size_t name_width_max = 40;

// A live stream without a frame for longer shows it.
constexpr std::int64_t silence_ns = 2 * ns_per_second;

std::size_t name_width(const Top_View& view) {
    const std::size_t more = view.width > 80 ? (view.width - 80) / 2 : 0;
    return std::min(name_width_min + more, name_width_max);
}

Screen_Line line_of(const Top_View& view) { return {view.width, view.has_colours}; }

std::string text_of(const watch::Stream_Id& id) {
    return channel_text(id.producer, id.channel, id.stream);
}

std::string process_text(const watch::Process& process) {
    return process.pid == 0 ? "-"
                            : std::to_string(process.pid) +
                                  (process.command.empty() ? "" : " " + process.command);
}

std::string seconds_text(std::int64_t ns) {
    return ns < 100 * ns_per_second ? short_number(static_cast<double>(ns) / 1e9, 1, 8) + " s"
                                    : short_time(ns);
}

Style style_of(const Stream& stream) {
    switch (stream.state) {
        case Stream::State::live:
            return stream.age_ns.value_or(0) > silence_ns ? Style::warning : Style::good;
        case Stream::State::slot:
            return Style::good;
        case Stream::State::closed:
            return Style::dim;
        case Stream::State::left:
        case Stream::State::unread:
            break;
    }
    return Style::bad;
}

Style style_of(const Consumer& consumer) {
    switch (consumer.state) {
        case Consumer::State::reading:
            return Style::good;
        case Consumer::State::gone:
            return Style::dim;
        case Consumer::State::not_reading:
        case Consumer::State::stopped:
            break;
    }
    return Style::bad;
}

// Within the column.
std::string state_text(const Consumer& consumer) {
    return consumer.state == Consumer::State::not_reading ? "silent" : name_of(consumer.state);
}

std::string name_text(const Consumer& consumer) {
    const std::string name = consumer.kind == Consumer::Kind::tap
                                 ? "(tap)"
                                 : channel_text(consumer.name, consumer.channel, consumer.stream);
    return "  " + name + (consumer.kind == Consumer::Kind::fixed ? " (fixed)" : "");
}

Top_Row stream_row(const Stream& stream, const Top_View& view) {
    const bool is_chosen = view.chosen == stream.id;
    const auto rate = [](const Stream::Rates& rates) {
        return short_number(rates.frames, 1, figure_width);
    };
    const bool has_bits = stream.rates && stream.state != Stream::State::slot;
    const std::string bits =
        has_bits ? short_number(stream.rates->bits / 1e6, 3, wide_figure_width) : "-";
    const bool has_history = stream.history.frames > 0;
    Screen_Line line = line_of(view);
    line.add(is_chosen ? ">" : " ", Style::bold)
        .left(text_of(stream.id), name_width(view), is_chosen ? Style::heading : Style::bold)
        .left(watch::name_of(stream.state), state_width, style_of(stream))
        .right(or_dash(stream.rates, rate), figure_width)
        .right(bits, wide_figure_width)
        .right(or_dash(stream.key_interval_ns, short_time), figure_width)
        .right(or_dash(stream.age_ns, short_time), figure_width)
        .right(has_history ? short_time(stream.history.ns) : "-", figure_width)
        .add(has_history ? short_bytes(stream.history.bytes) + " " : "")
        .add(stream.codec != 0 ? codec_name(stream.codec) : "", Style::dim);
    return {line.text(), stream.id};
}

Top_Row consumer_row(const Consumer& consumer, const Top_View& view) {
    const auto rate = [](const Consumer::Rates& rates) {
        return short_number(rates.frames, 1, figure_width);
    };
    const auto loss = [](const Consumer::Rates& rates) {
        return short_number(rates.lost(), 1, figure_width);
    };
    const auto p50 = [](const Consumer::Latency& latency) { return short_time(latency.p50_ns); };
    const auto p99 = [](const Consumer::Latency& latency) { return short_time(latency.p99_ns); };
    const bool loses = consumer.rates && consumer.rates->lost() > 0;
    Screen_Line line = line_of(view);
    line.add(" ")
        .left(name_text(consumer), name_width(view))
        .left(state_text(consumer), state_width, style_of(consumer))
        .right(or_dash(consumer.rates, rate), figure_width)
        .right(or_dash(consumer.behind, short_count), wide_figure_width)
        .right(or_dash(consumer.rates, loss), figure_width, loses ? Style::bad : Style::plain)
        .right(or_dash(consumer.recent_latency, p50), figure_width)
        .right(or_dash(consumer.recent_latency, p99), figure_width)
        .add(process_text(consumer.process), Style::dim);
    return {line.text(), {}};
}

// "overtaken 10.0, left out 2.0"
std::string causes_of(const Consumer::Rates& rates) {
    std::string text;
    const auto add = [&text](const char* cause, double rate) {
        if (rate > 0) {
            text +=
                (text.empty() ? "" : ", ") + std::string(cause) + " " + short_number(rate, 1, 8);
        }
    };
    add("overtaken", rates.overtaken);
    add("left out", rates.left_out);
    add("no memory", rates.no_memory);
    return text;
}

std::vector<std::string> notes_of(const Stream& stream) {
    std::vector<std::string> notes;
    const std::string producer = "its producer, process " + process_text(stream.writer);
    if (!stream.problem.empty()) {
        notes.push_back(stream.problem);
    }
    if (stream.state == Stream::State::left) {
        notes.push_back(producer + ", is gone without having closed it");
    }
    if (stream.writer.is_stopped) {
        notes.push_back(producer + ", is stopped");
    }
    return notes;
}

// What is wrong with it, if anything is.
std::vector<std::string> notes_of(const Consumer& consumer) {
    std::vector<std::string> notes;
    const std::string since = consumer.not_reading_ns > 0
                                  ? "not reading since " + seconds_text(consumer.not_reading_ns)
                                  : "";
    if (consumer.state == Consumer::State::stopped) {
        notes.push_back("its process is stopped" + (since.empty() ? "" : "; " + since));
    } else if (consumer.state == Consumer::State::gone) {
        notes.emplace_back("it has ended without taking its card away");
    } else if (!since.empty()) {
        notes.push_back(since);
    }
    if (consumer.rates && consumer.rates->lost() > 0) {
        notes.push_back("losing frames, each second: " + causes_of(*consumer.rates));
    }
    return notes;
}

void add_consumer(std::vector<Top_Row>& rows, const Consumer& consumer, const Top_View& view) {
    rows.push_back(consumer_row(consumer, view));
    for (const std::string& note : notes_of(consumer)) {
        rows.push_back(
            {line_of(view)
                 .add("     " + note, style_of(consumer) == Style::dim ? Style::dim : Style::bad)
                 .text(),
             {}});
    }
}

void add_detail(std::vector<Top_Row>& rows, const Top_View& view, const std::string& name,
                const std::string& text) {
    rows.push_back({line_of(view).add("     ").left(name, 12, Style::dim).add(text).text(), {}});
}

std::string counters_text(const Consumer& consumer) {
    const Reader_Card::Counters& counters = consumer.counters;
    return std::to_string(counters.frames) + " received, " + std::to_string(consumer.lost()) +
           " lost: " + std::to_string(counters.overtaken) + " overtaken, " +
           std::to_string(counters.left_out) + " left out, " + std::to_string(counters.no_memory) +
           " no memory";
}

std::string passed_over_text(const Consumer& consumer) {
    const Reader_Card::Counters& counters = consumer.counters;
    return std::to_string(counters.dropped) + " for newer ones, " +
           std::to_string(counters.skipped) + " before a key frame; torn " +
           std::to_string(counters.torn) + ", invalid " + std::to_string(counters.invalid);
}

std::string relay_text(const watch::Relay& relay) {
    return std::to_string(relay.frames) + " frames; consumer absent " +
           std::to_string(relay.presence_timeouts) + ", no frame " +
           std::to_string(relay.frame_timeouts) + ", unread " + std::to_string(relay.read_timeouts);
}

std::string history_text(const Stream& stream) {
    return std::to_string(stream.history.frames) + " frames, " + seconds_text(stream.history.ns) +
           ", " + short_bytes(stream.history.bytes) + " of " +
           short_bytes(stream.history.bytes_of_room);
}

std::string frames_text(const Stream& stream) {
    return std::to_string(stream.frames) +
           (stream.bytes ? " of " + std::to_string(*stream.bytes) + " bytes" : "") + ", " +
           std::to_string(stream.left_out) + " left out";
}

std::string key_frames_text(const Stream& stream) {
    const auto frames = [](std::uint64_t count) { return std::to_string(count) + " frames"; };
    return "every " + or_dash(stream.key_interval_frames, frames) + ", " +
           or_dash(stream.key_interval_ns, short_time) + "; the newest one is " +
           or_dash(stream.key_age_ns, short_time) + " old";
}

}  // namespace

std::vector<std::string> column_headings(const Top_View& view) {
    Screen_Line streams = line_of(view);
    streams.add(" ")
        .left("STREAM", name_width(view))
        .left("STATE", state_width)
        .right("FR/S", figure_width)
        .right("MBIT/S", wide_figure_width)
        .right("KEY", figure_width)
        .right("AGE", figure_width)
        .right("HELD", figure_width)
        .add("HELD, CODEC");
    Screen_Line consumers = line_of(view);
    consumers.add(" ")
        .left("  CONSUMER", name_width(view))
        .left("STATE", state_width)
        .right("FR/S", figure_width)
        .right("BEHIND", wide_figure_width)
        .right("LOST/S", figure_width)
        .right("P50", figure_width)
        .right("P99", figure_width)
        .add("PROCESS");
    return {streams.text(), consumers.text()};
}

std::vector<Top_Row> rows_of(const Stream& stream, const Top_View& view) {
    std::vector<Top_Row> rows{stream_row(stream, view)};
    for (const std::string& note : notes_of(stream)) {
        rows.push_back({line_of(view).add("   " + note, Style::bad).text(), {}});
    }
    for (const Consumer& consumer : stream.consumers) {
        add_consumer(rows, consumer, view);
    }
    return rows;
}

std::vector<Top_Row> rows_elsewhere(const watch::Snapshot& snapshot, const Top_View& view) {
    std::vector<Top_Row> rows;
    for (const Consumer& consumer : snapshot.elsewhere) {
        if (!view.producer.empty() && consumer.of.producer != view.producer) {
            continue;
        }
        const std::string of = consumer.of.producer.empty() ? "nobody" : text_of(consumer.of);
        rows.push_back({line_of(view).add(" waiting for " + of, Style::bold).text(), {}});
        add_consumer(rows, consumer, view);
    }
    return rows;
}

std::vector<Top_Row> detailed_rows_of(const Stream& stream, const Top_View& view) {
    std::vector<Top_Row> rows{stream_row(stream, view)};
    add_detail(rows, view, "producer", process_text(stream.writer));
    add_detail(rows, view, "frames", frames_text(stream));
    add_detail(rows, view, "history", history_text(stream));
    add_detail(rows, view, "key frames", key_frames_text(stream));
    if (stream.width != 0) {
        add_detail(rows, view, "pictures",
                   std::to_string(stream.width) + " x " + std::to_string(stream.height));
    }
    if (stream.relay) {
        add_detail(rows, view, "relay", relay_text(*stream.relay));
    }
    if (!stream.problem.empty()) {
        add_detail(rows, view, "problem", stream.problem);
    }
    for (const Consumer& consumer : stream.consumers) {
        add_consumer(rows, consumer, view);
        add_detail(rows, view, "frames", counters_text(consumer));
        add_detail(rows, view, "passed over", passed_over_text(consumer));
        add_detail(rows, view, "last frame",
                   or_dash(consumer.last_frame_age_ns, short_time) + " ago");
    }
    return rows;
}

}  // namespace zav_shm::tool
