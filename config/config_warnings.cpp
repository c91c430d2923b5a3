// SPDX-License-Identifier: Apache-2.0
//
// What a center can be run with and what is probably not meant.
#include <algorithm>
#include <numeric>
#include <string_view>

#include "config/field_reader.h"
#include "config/utf8.h"
#include "config/zav_shm_config.h"

namespace {

using Warnings = std::vector<std::string>;
using Name_Record = _SHM_DIST_RECV_CONFIG_;
using zav_shm::element_name;
using zav_shm::quoted;
using zav_shm::text_of;

constexpr std::size_t shown_numbers_max = 16;

// ---- characters ----

void warn_of_characters(Warnings& warnings, const std::string& where, const std::string& text) {
    bool has_control = false;
    for (std::string_view rest = text; !rest.empty();) {
        const zav_shm::Utf8_Character first = zav_shm::first_utf8_character(rest);
        if (first.bytes == 0) {
            warnings.push_back(where + ": " + quoted(text) + " is not valid UTF-8");
            return;
        }
        has_control = has_control || zav_shm::is_control_character(first.code);
        rest.remove_prefix(first.bytes);
    }
    if (has_control) {
        warnings.push_back(where + ": " + quoted(text) + " has control characters");
    }
}

void warn_of_name(Warnings& warnings, const std::string& where, const std::string& name) {
    warn_of_characters(warnings, where, name);
    if (name == ".") {
        warnings.push_back(where + ": \".\" reads like a folder");
    }
    if (!name.empty() && (name.front() == ' ' || name.back() == ' ')) {
        warnings.push_back(where + ": " + quoted(name) + " begins or ends with a blank");
    }
}

// ---- streams ----

// What a ring can hold: its history and one frame of the greatest size with its header.
constexpr std::int64_t ring_records_max = 4'294'967'232;
constexpr std::int64_t frame_header_bytes = 128;

void warn_of_histories(Warnings& warnings, std::span<_SHM_STREAM_CONFIG_* const> streams) {
    for (std::size_t i = 0; i < streams.size(); ++i) {
        if (streams[i] == nullptr || streams[i]->page_size < 1 || streams[i]->history_bytes < 0) {
            continue;
        }
        const std::int64_t greatest =
            ring_records_max - frame_header_bytes - std::int64_t{streams[i]->page_size};
        const std::int64_t history = ring_history_bytes(*streams[i]);
        if (history > greatest) {
            warnings.push_back(element_name("Stream", i) +
                               ".history_bytes: " + std::to_string(history) +
                               (streams[i]->history_bytes == 0 ? " (twice the page size)" : "") +
                               " is more than fits into a ring beside the greatest frame, " +
                               std::to_string(greatest) + "; publishers cannot make it");
        }
    }
}

// ---- stream lists ----

std::string list_text(const std::vector<int>& numbers) {
    std::string text;
    for (std::size_t i = 0; i < numbers.size() && i < shown_numbers_max; ++i) {
        text += (i == 0 ? "" : ", ") + std::to_string(numbers[i]);
    }
    return "[" + text + (numbers.size() > shown_numbers_max ? ", ...]" : "]");
}

std::vector<int> counted_from_0(std::size_t length) {
    std::vector<int> numbers(length);
    std::iota(numbers.begin(), numbers.end(), 0);
    return numbers;
}

std::string streams_text(std::size_t count) {
    return count == 1 ? "stream 0" : "the streams 0 to " + std::to_string(count - 1);
}

// A request for stream s is accepted when s is less than the length of the list.
void warn_of_stream_list(Warnings& warnings, const std::string& where,
                         const std::vector<int>& numbers, std::size_t stream_count) {
    const std::vector<int> meant = counted_from_0(std::min(numbers.size(), stream_count));
    if (numbers == meant) {
        return;
    }
    std::string reason = ", since its length counts and not its numbers; write ";
    if (numbers.size() > stream_count) {
        reason = std::string(", but there ") + (stream_count == 1 ? "is" : "are") + " only " +
                 streams_text(stream_count) + "; write ";
    }
    warnings.push_back(where + ": " + list_text(numbers) + " accepts " +
                       streams_text(numbers.size()) + reason + list_text(meant));
}

void warn_of_names(Warnings& warnings, const char* list, std::span<Name_Record* const> records,
                   std::size_t stream_count) {
    for (std::size_t i = 0; i < records.size(); ++i) {
        if (records[i] != nullptr) {
            const std::string where = element_name(list, i);
            warn_of_name(warnings, where + ".name", text_of(records[i]->name));
            warn_of_stream_list(warnings, where + ".stream", records[i]->stream, stream_count);
        }
    }
}

}  // namespace

std::vector<std::string> ZAV_SHM_CONFIG::warnings() const {
    Warnings found = document_warnings_;
    warn_of_characters(found, "System.ROOT_PATH", text_of(root_path));
    warn_of_characters(found, "System.SHM_PATH", text_of(shm_path));
    warn_of_characters(found, "System.SEM_PATH", text_of(sem_path));
    warn_of_histories(found, streams());
    warn_of_names(found, "Distributor", distributors(), streams().size());
    warn_of_names(found, "Receiver", receivers(), streams().size());
    return found;
}
