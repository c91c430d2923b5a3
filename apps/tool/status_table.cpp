// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <string>
#include <vector>

#include "apps/tool/json_text.h"
#include "apps/tool/status_file.h"

namespace zav_shm::tool {

namespace {

using Row = std::vector<std::string>;

std::string channel_at(const Json::Value& end) {
    return channel_text(text_at(end, "name"), static_cast<int>(count_at(end, "channel")),
                        static_cast<int>(count_at(end, "stream")));
}

std::string number_at(const Json::Value& object, const char* member) {
    return std::to_string(count_at(object, member));
}

Row row_of(const Json::Value& channel, const Json::Value* consumer) {
    return {channel_at(channel),
            number_at(channel, "frames"),
            number_at(channel, "cycles"),
            number_at(channel, "presence_timeouts"),
            number_at(channel, "frame_timeouts"),
            number_at(channel, "read_timeouts"),
            number_at(channel, "live"),
            consumer != nullptr ? channel_at(*consumer) : "-",
            consumer != nullptr ? number_at(*consumer, "frames") : "",
            consumer != nullptr ? number_at(*consumer, "missed_in_row") : ""};
}

// A channel's own columns stand in its first row only.
std::vector<Row> rows_of(const Json::Value& channels) {
    std::vector<Row> rows{{"channel", "frames", "cycles", "absent", "no frame", "unread", "live",
                           "consumer", "frames", "missed in row"}};
    for (const Json::Value& channel : channels) {
        const Json::Value consumers = list_at(channel, "consumers");
        if (consumers.empty()) {
            rows.push_back(row_of(channel, nullptr));
        }
        for (Json::ArrayIndex i = 0; i < consumers.size(); ++i) {
            rows.push_back(row_of(channel, &consumers[i]));
            if (i > 0) {
                std::fill_n(rows.back().begin(), 7, std::string());
            }
        }
    }
    return rows;
}

// Names to the left, figures to the right.
std::string aligned(const std::vector<Row>& rows) {
    std::vector<std::size_t> widths(rows.front().size());
    for (const Row& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    std::string text;
    for (const Row& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            const bool is_name = i == 0 || i == 7;
            const std::string blanks(widths[i] - row[i].size(), ' ');
            line += (i > 0 ? "  " : "") + (is_name ? row[i] + blanks : blanks + row[i]);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + "\n";
    }
    return text;
}

}  // namespace

std::string table_of(const Center_Status& status) {
    const Json::Value& content = status.content;
    const std::string configuration = text_at(content, "configuration");
    return "center " + text_at(content, "version") + ", process " + number_at(content, "pid") +
           (status.is_alive ? "" : " (gone)") + ", since " + text_at(content, "started_utc") +
           "\nconfiguration " + (configuration.empty() ? "-" : configuration) +
           ", idle consumers are " + (flag_at(content, "kick_idle") ? "kicked" : "kept") + "\n\n" +
           aligned(rows_of(list_at(content, "channels")));
}

}  // namespace zav_shm::tool
