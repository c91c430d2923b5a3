// SPDX-License-Identifier: Apache-2.0
//
// `zav-shm trace`: reads all of a trace, and tells what is in it, or whether another one holds the
// same.
#include <cinttypes>
#include <cstdio>
#include <ctime>

#include "apps/tool/commands.h"
#include "apps/tool/json_text.h"
#include "apps/tool/trace_account.h"
#include "apps/tool/trace_comparison.h"
#include "apps/trace/trace_source.h"
#include "ipc/monotonic_clock.h"

namespace zav_shm::tool {

namespace {

using Step = trace::Trace_Reader::Step;
using trace::Record_Type;

constexpr std::size_t lines_bytes = std::size_t{1} << 16;  // that are written at once

std::string utc_text(std::int64_t utc_ns) {
    const auto seconds = static_cast<std::time_t>(utc_ns / ns_per_second);
    std::tm parts{};
    char text[64] = "";
    if (gmtime_r(&seconds, &parts) == nullptr ||
        std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts) == 0) {
        return "unknown";
    }
    return text;
}

std::optional<Problem> open_trace(const std::string& name, trace::Trace_File& file,
                                  trace::Trace_Reader& reader) {
    const std::string title = "\"" + name + "\"";
    if (const std::string trouble = file.open(name); !trouble.empty()) {
        return Problem{Exit_Status::input_output, "cannot open " + title + ": " + trouble};
    }
    if (const auto damage = reader.open()) {
        return Problem{Exit_Status::input_output, "cannot read " + title + " " + damage->text()};
    }
    return {};
}

// ---- a line for each record ----

const char* name_of(Record_Type type) {
    constexpr const char* names[] = {"stream", "frame", "loss", "index", "end"};
    return names[static_cast<std::size_t>(type) - 1];
}

Json::Value json_of(const trace::Trace_Record& record, const std::string& stream) {
    Json::Value line;
    line["offset"] = static_cast<Json::UInt64>(record.offset);
    line["type"] = name_of(record.head.type);
    line["received_ns"] = static_cast<Json::Int64>(record.head.received.monotonic_ns);
    line["utc_ns"] = static_cast<Json::Int64>(record.head.received.utc_ns);
    if (!stream.empty()) {
        line["stream"] = stream;
    }
    if (record.head.type == Record_Type::frame) {
        const ZAV_SHM_Frame_Header& header = record.frame;
        line["foreign"] = record.is_foreign();
        line["sequence"] = static_cast<Json::UInt64>(header.sequence);
        line["bytes"] = static_cast<Json::UInt64>(record.payload.size());
        line["flags"] = header.flags;
        line["epoch"] = static_cast<Json::UInt64>(header.epoch);
        line["publish_ns"] = static_cast<Json::Int64>(header.publish_ns);
        line["pts_ns"] = static_cast<Json::Int64>(header.pts_ns);
    } else if (record.head.type == Record_Type::loss) {
        line["overtaken"] = static_cast<Json::UInt64>(record.losses.overtaken);
        line["left_out"] = static_cast<Json::UInt64>(record.losses.left_out);
        line["no_memory"] = static_cast<Json::UInt64>(record.losses.no_memory);
        line["dropped"] = static_cast<Json::UInt64>(record.losses.dropped);
        line["skipped"] = static_cast<Json::UInt64>(record.losses.skipped);
    }
    return line;
}

std::string text_of(const trace::Trace_Record& record, const std::string& stream,
                    std::int64_t begin_ns) {
    char head[96];
    const double seconds = static_cast<double>(record.head.received.monotonic_ns - begin_ns) /
                           static_cast<double>(ns_per_second);
    std::snprintf(head, sizeof head, "%12" PRIu64 " %12.6f %-6s", record.offset, seconds,
                  name_of(record.head.type));
    std::string line = head + (stream.empty() ? std::string() : " " + stream);
    if (record.head.type == Record_Type::frame) {
        line += " sequence=" + std::to_string(record.frame.sequence) +
                " bytes=" + std::to_string(record.payload.size()) +
                " flags=" + std::to_string(record.frame.flags) +
                (record.is_foreign() ? " foreign" : "");
    } else if (record.head.type == Record_Type::loss) {
        line += " overtaken=" + std::to_string(record.losses.overtaken) +
                " left_out=" + std::to_string(record.losses.left_out) +
                " no_memory=" + std::to_string(record.losses.no_memory) +
                " skipped=" + std::to_string(record.losses.dropped + record.losses.skipped);
    }
    return line + "\n";
}

/// Lines on their way to standard output, many at a time.
class Record_List {
public:
    Record_List(const Trace_Options& options, const Standard_Output& output,
                const trace::Trace_Reader& reader)
        : options_(options), output_(output), reader_(reader) {}

    /// @return false when standard output takes no more.
    bool add(const trace::Trace_Record& record) {
        const std::string stream = record.head.stream < reader_.streams().size()
                                       ? reader_.streams()[record.head.stream].text()
                                       : std::string();
        lines_ += options_.json ? json_line(json_of(record, stream)) + "\n"
                                : text_of(record, stream, reader_.header().begin.monotonic_ns);
        return lines_.size() < lines_bytes || write();
    }

    bool write() {
        status_ = lines_.empty() ? status_ : write_to(output_, lines_);
        lines_.clear();
        return status_ == Exit_Status::ok;
    }

    Exit_Status status() const { return status_; }

private:
    const Trace_Options& options_;
    const Standard_Output& output_;
    const trace::Trace_Reader& reader_;
    std::string lines_;
    Exit_Status status_ = Exit_Status::ok;
};

// ---- what is in it ----

std::string summary(const Trace_Options& options, const trace::Trace_Reader& reader, Step end,
                    std::uint64_t file_bytes, const Trace_Account& account) {
    const std::int64_t utc_ns = reader.header().begin.utc_ns;
    if (options.json) {
        Json::Value all;
        all["version"] = trace::version;
        all["begin"] = utc_text(utc_ns);
        all["seconds"] = account.seconds();
        all["file_bytes"] = static_cast<Json::UInt64>(file_bytes);
        all["frames"] = static_cast<Json::UInt64>(account.frames());
        all["bytes"] = static_cast<Json::UInt64>(account.payload_bytes());
        all["closed"] = end == Step::end;
        all["damage"] = Json::Value();
        if (end == Step::damage) {
            all["damage"]["offset"] = static_cast<Json::UInt64>(reader.damage().offset);
            all["damage"]["what"] = reader.damage().what;
            all["damage"]["cut"] = reader.damage().is_cut;
        }
        all["streams"] = account.json();
        return json_line(all) + "\n";
    }
    char line[160];
    std::snprintf(line, sizeof line,
                  "trace of %s, version %u: %.3f s, %" PRIu64 " frames, %" PRIu64
                  " bytes of payload, %s\n",
                  utc_text(utc_ns).c_str(), trace::version, account.seconds(), account.frames(),
                  account.payload_bytes(),
                  end == Step::end          ? "closed in order"
                  : end == Step::not_closed ? "not closed"
                                            : "damaged");
    return line + account.table();
}

Exit_Status show(const Trace_Options& options, const Standard_Output& output) {
    trace::Trace_File file;
    trace::Trace_Reader reader(file);
    if (const auto problem = open_trace(options.file, file, reader)) {
        return report(*problem);
    }
    Trace_Account account(reader.streams());
    Record_List list(options, output, reader);
    Step step = Step::record;
    while ((step = reader.next()) == Step::record) {
        account.add(reader.record());
        if (options.list && !list.add(reader.record())) {
            return list.status();
        }
    }
    const Exit_Status written =
        options.list ? (list.write(), list.status())
                     : write_to(output, summary(options, reader, step, file.size_bytes(), account));
    if (written != Exit_Status::ok || step != Step::damage) {
        return written;
    }
    return report({Exit_Status::incomplete, "\"" + options.file + "\" is " +
                                                (reader.damage().is_cut ? "cut " : "damaged ") +
                                                reader.damage().text()});
}

Exit_Status compare(const Trace_Options& options, const Standard_Output& output) {
    trace::Trace_File file;
    trace::Trace_File other_file;
    trace::Trace_Reader reader(file);
    trace::Trace_Reader other_reader(other_file);
    auto problem = open_trace(options.file, file, reader);
    problem = problem ? problem : open_trace(options.other, other_file, other_reader);
    if (problem) {
        return report(*problem);
    }
    Trace_Comparison comparison(file, other_file);
    const auto difference = comparison.find_difference();
    Json::Value result;
    result["equal"] = !difference;
    result["frames"] = static_cast<Json::UInt64>(comparison.frames());
    if (difference) {
        result["difference"] = *difference;
    }
    const std::string text = difference
                                 ? "different: " + *difference
                                 : "equal: " + std::to_string(comparison.streams()) + " streams, " +
                                       std::to_string(comparison.frames()) + " frames";
    const Exit_Status written = write_to(output, (options.json ? json_line(result) : text) + "\n");
    return written == Exit_Status::ok && difference ? Exit_Status::incomplete : written;
}

}  // namespace

Exit_Status run(const Trace_Options& options, const Standard_Output& output) {
    return options.other.empty() ? show(options, output) : compare(options, output);
}

}  // namespace zav_shm::tool
