// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <string>
#include <vector>

#include "apps/text/printable.h"
#include "apps/tool/json_text.h"
#include "apps/tool/status_file.h"
#include "apps/tool/text_table.h"

namespace zav_shm::tool {

namespace {

std::string channel_at(const Json::Value& end) {
    return channel_text(printable(text_at(end, "name")), static_cast<int>(count_at(end, "channel")),
                        static_cast<int>(count_at(end, "stream")));
}

// A reader whose counters cannot be read has none of these, and one without a ring is behind
// nothing.
std::string figure_at(const Json::Value& reader, const char* member) {
    return reader.isObject() && reader[member].isNumeric() ? number_at(reader, member) : "-";
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

// Those that read their producer's history themselves: no relay counts them, so they tell it.
std::vector<Row> rows_of_readers(const Json::Value& readers) {
    std::vector<Row> rows{{"reader", "process", "of", "behind", "received", "lost", "overtaken",
                           "left out", "no memory", "dropped", "skipped"}};
    for (const Json::Value& reader : readers) {
        const int channel = static_cast<int>(count_at(reader, "channel"));
        const int stream = static_cast<int>(count_at(reader, "stream"));
        const std::string consumer = printable(text_at(reader, "consumer"));
        const std::string producer = printable(text_at(reader, "producer"));
        rows.push_back({consumer.empty() ? "(tap)" : channel_text(consumer, channel, stream),
                        number_at(reader, "pid"),
                        producer.empty() ? "-" : channel_text(producer, channel, stream),
                        figure_at(reader, "behind"), figure_at(reader, "received"),
                        figure_at(reader, "lost"), figure_at(reader, "overtaken"),
                        figure_at(reader, "left_out"), figure_at(reader, "no_memory"),
                        figure_at(reader, "dropped"), figure_at(reader, "skipped")});
    }
    return rows;
}

}  // namespace

std::string table_of(const Center_Status& status) {
    const Json::Value& content = status.content;
    const Json::Value readers = list_at(content, "ring_consumers");
    const std::string configuration = printable(text_at(content, "configuration"));
    return "center " + printable(text_at(content, "version")) + ", process " +
           number_at(content, "pid") + (status.is_alive ? "" : " (gone)") + ", since " +
           printable(text_at(content, "started_utc")) + "\nconfiguration " +
           (configuration.empty() ? "-" : configuration) + ", idle consumers are " +
           (flag_at(content, "kick_idle") ? "kicked" : "kept") + "\n\n" +
           aligned(rows_of(list_at(content, "channels")), {0, 7}) +
           (readers.empty() ? "" : "\n" + aligned(rows_of_readers(readers), {0, 2}));
}

}  // namespace zav_shm::tool
