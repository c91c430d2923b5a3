// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/top/top_view.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <iterator>

#include "apps/tool/top/screen_line.h"
#include "apps/tool/top/top_rows.h"
#include "ipc/monotonic_clock.h"

namespace zav_shm::tool {

namespace {

using watch::Snapshot;
using watch::Stream;

const std::vector<std::string> key_lines = {
    "",
    "  q, Ctrl-C     quit",
    "  f, space      freeze the picture, and go on",
    "  s             the next order: name, rate, bits, age, behind, lost",
    "  n r b a d l   one of these: name, rate, bits, age, behind, lost",
    "  up, down      choose a stream (also k and j, page up and page down)",
    "  enter         the chosen stream alone, with all that is known of it, and back",
    "  h, ?          these lines, and back",
    "",
    "  Of a stream: frames per second, payload, time between key frames, age of the",
    "  newest frame, and what of its history can be read: time and bytes.",
    "  Of a consumer: frames per second, frames that it has not taken, lost ones per",
    "  second, and the time from publish() to the frame handed out, for 50 % and 99 %",
    "  of the frames since the picture before. docs/top.md tells the rest.",
};

// "13:45:02", by the device's clock.
std::string clock_text(const Snapshot& snapshot) {
    const auto seconds = static_cast<std::time_t>(snapshot.utc_ns / ns_per_second);
    std::tm parts{};
    std::array<char, 16> text{};
    localtime_r(&seconds, &parts);
    std::strftime(text.data(), text.size(), "%H:%M:%S", &parts);
    return text.data();
}

std::string center_text(const watch::Center_Standing& center) {
    if (!center.is_there) {
        return "no center";
    }
    return "center " + std::to_string(center.pid) + (center.is_alive ? "" : " (gone)");
}

std::string count_text(std::size_t count, const std::string& what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::string title_of(const Snapshot& snapshot, const Top_View& view,
                     const std::vector<Stream>& streams) {
    std::size_t consumers = snapshot.elsewhere.size();
    for (const Stream& stream : streams) {
        consumers += stream.consumers.size();
    }
    Screen_Line line(view.width, view.has_colours);
    line.add("zav-shm top", Style::bold)
        .add("  " + clock_text(snapshot) + "  /" + snapshot.folder + "  ")
        .add(center_text(snapshot.center),
             snapshot.center.is_there && !snapshot.center.is_alive ? Style::bad : Style::plain)
        .add("  " + count_text(streams.size(), "stream") + "  " +
             count_text(consumers, "consumer"));
    if (view.is_frozen) {
        line.add("  ").add("FROZEN", Style::warning);
    } else {
        line.add("  every " + view.every);
    }
    if (snapshot.omitted > 0) {
        line.add("  " + std::to_string(snapshot.omitted) + " left out", Style::bad);
    }
    return line.text();
}

std::vector<Top_Row> body_of(const Snapshot& snapshot, const Top_View& view,
                             const std::vector<Stream>& streams) {
    std::vector<Top_Row> rows;
    const auto add = [&rows](std::vector<Top_Row> more) {
        std::move(more.begin(), more.end(), std::back_inserter(rows));
    };
    for (const Stream& stream : streams) {
        if (!view.shows_one) {
            add(rows_of(stream, view));
        } else if (view.chosen == stream.id) {
            add(detailed_rows_of(stream, view));
        }
    }
    if (view.shows_one && rows.empty()) {
        rows.push_back({" the chosen stream is gone; enter shows all", {}});
    }
    if (!view.shows_one) {
        add(rows_elsewhere(snapshot, view));
    }
    if (rows.empty()) {
        rows.push_back({" no stream in /dev/shm/" + snapshot.folder + "/rings", {}});
    }
    return rows;
}

// As far down as it takes to have the chosen stream on the screen.
std::size_t first_shown(const std::vector<Top_Row>& rows, const Top_View& view, std::size_t room) {
    const auto chosen = std::find_if(rows.begin(), rows.end(), [&view](const Top_Row& row) {
        return row.stream && row.stream == view.chosen;
    });
    if (rows.size() <= room || chosen == rows.end() || view.shows_one) {
        return 0;
    }
    const auto at = static_cast<std::size_t>(chosen - rows.begin());
    return std::min(at > room / 2 ? at - room / 2 : 0, rows.size() - room);
}

std::string footer_of(const Top_View& view, std::size_t first, std::size_t room, std::size_t rows) {
    Screen_Line line(view.width, view.has_colours);
    line.add(" q quit  f freeze  s order: ", Style::dim)
        .add(name_of(view.order), Style::bold)
        .add("  arrows and enter: one stream  h keys", Style::dim);
    if (rows > room) {
        line.add("  " + std::to_string(first + 1) + "-" + std::to_string(first + room) + " of " +
                     std::to_string(rows),
                 Style::warning);
    }
    return line.text();
}

}  // namespace

std::string table_of(const Snapshot& snapshot, const Top_View& view) {
    const std::vector<Stream> streams = streams_of(snapshot, view);
    std::string text = title_of(snapshot, view, streams) + "\n";
    for (const std::string& line : column_headings(view)) {
        text += line + "\n";
    }
    for (const Top_Row& row : body_of(snapshot, view, streams)) {
        text += row.text + "\n";
    }
    return text;
}

std::vector<std::string> screen_of(const Snapshot& snapshot, const Top_View& view) {
    const std::vector<Stream> streams = streams_of(snapshot, view);
    std::vector<std::string> lines{title_of(snapshot, view, streams)};
    if (view.shows_help) {
        for (const std::string& line : key_lines) {
            lines.push_back(Screen_Line(view.width, false).add(line).text());
        }
        lines.resize(std::min(lines.size(), view.height));
        return lines;
    }
    for (const std::string& line : column_headings(view)) {
        lines.push_back(Screen_Line(view.width, view.has_colours).add(line, Style::dim).text());
    }
    const std::vector<Top_Row> rows = body_of(snapshot, view, streams);
    const std::size_t room = view.height > lines.size() + 1 ? view.height - lines.size() - 1 : 0;
    const std::size_t first = first_shown(rows, view, room);
    for (std::size_t i = first; i < rows.size() && i < first + room; ++i) {
        lines.push_back(rows[i].text);
    }
    lines.resize(std::max(view.height, lines.size() + 1) - 1);
    lines.push_back(footer_of(view, first, room, rows.size()));
    lines.resize(std::min(lines.size(), view.height));
    return lines;
}

}  // namespace zav_shm::tool
