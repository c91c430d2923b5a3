// SPDX-License-Identifier: Apache-2.0
//
// What a configuration may hold by its format and what a center cannot serve, or serves otherwise
// than meant.
#include <climits>
#include <cstdint>
#include <cstdio>
#include <map>

#include "config/field_reader.h"
#include "config/zav_shm_config.h"

namespace {

using Problems = std::vector<std::string>;
using Name_Record = _SHM_DIST_RECV_CONFIG_;
using zav_shm::element_name;
using zav_shm::quoted;
using zav_shm::text_of;

// Of all names, streams included, producers and consumers together: each producer's is a thread
// and a segment of a center that runs on one device.
constexpr std::int64_t channels_max = 4096;

// Segments have 128 bytes in front of the payload and a length of type int.
constexpr int page_size_max = INT_MAX - 128;

// A longer segment name is cut there, and names that differ in the lost end become one.
constexpr int segment_name_length_max = 63;

void check_component(Problems& problems, const std::string& where, const std::string& text) {
    if (text.empty()) {
        problems.push_back(where + " is empty");
    }
    if (text.find('/') != std::string::npos) {
        problems.push_back(where + ": " + quoted(text) + " contains a slash");
    }
    if (text.find("..") != std::string::npos) {
        problems.push_back(where + ": " + quoted(text) + " contains \"..\"");
    }
}

// "." is no folder of its own: what is done to the folder would be done to the one around it.
void check_folder(Problems& problems, const std::string& where, const std::string& text) {
    check_component(problems, where, text);
    if (text == ".") {
        problems.push_back(where + ": \".\" is no folder of its own");
    }
}

void check_root_path(Problems& problems, const std::string& where, const std::string& text) {
    if (text.empty()) {
        problems.push_back(where + " is empty");
    } else if (text.front() != '/') {
        problems.push_back(where + ": " + quoted(text) + " does not begin with a slash");
    }
    if (text.find("..") != std::string::npos) {
        problems.push_back(where + ": " + quoted(text) + " contains \"..\"");
    }
}

void check_count(Problems& problems, const char* count_name, int count, std::size_t records) {
    if (count < 0 || static_cast<std::size_t>(count) != records) {
        problems.push_back(std::string(count_name) + " is " + std::to_string(count) + ", but " +
                           std::to_string(records) + " records are listed");
    }
}

void check_streams(Problems& problems, std::span<_SHM_STREAM_CONFIG_* const> streams) {
    for (std::size_t i = 0; i < streams.size(); ++i) {
        if (streams[i] != nullptr &&
            (streams[i]->page_size < 1 || streams[i]->page_size > page_size_max)) {
            problems.push_back(element_name("Stream", i) +
                               ".page_size: " + std::to_string(streams[i]->page_size) +
                               " is not from 1 to " + std::to_string(page_size_max));
        }
        if (streams[i] != nullptr && streams[i]->history_bytes < 0) {
            problems.push_back(element_name("Stream", i) +
                               ".history_bytes: " + std::to_string(streams[i]->history_bytes) +
                               " is not from 0 to " + std::to_string(INT_MAX));
        }
    }
}

/// The checks of the two name lists.
class Name_Lists {
public:
    Name_Lists(Problems& problems, std::string shm_path, int stream_count)
        : problems_(problems), shm_path_(std::move(shm_path)), stream_count_(stream_count) {}

    enum class Side { producer, consumer };

    void check(Side side, const char* list, std::span<Name_Record* const> records) {
        std::map<std::string, std::size_t> seen;
        for (std::size_t i = 0; i < records.size(); ++i) {
            if (records[i] == nullptr) {
                continue;
            }
            const std::string where = element_name(list, i);
            const std::string name = text_of(records[i]->name);
            check_component(problems_, where + ".name", name);
            if (const auto [earlier, is_new] = seen.emplace(name, i); !is_new) {
                problems_.push_back(where + ".name: " + quoted(name) + " is the name of " +
                                    element_name(list, earlier->second) + ", too");
            }
            check_channels(where, records[i]->channel);
            check_stream_list(where, records[i]->stream);
            if (side == Side::producer) {  // consumers map the producers' segments
                check_segment_names(where + ".name", name, records[i]->channel);
            }
        }
    }

private:
    void check_channels(const std::string& where, int channel) {
        if (channel < 0) {
            problems_.push_back(where + ".channel: " + std::to_string(channel) + " is below 0");
            return;
        }
        const std::int64_t before = channels_;
        if (before > channels_max) {
            return;  // said once; the sum stays far from its type's limit
        }
        channels_ += std::int64_t{channel} * stream_count_;
        if (channels_ > channels_max) {
            problems_.push_back(where + ".channel: " + std::to_string(channel) + " channels of " +
                                std::to_string(stream_count_) + " streams make " +
                                std::to_string(channels_) + " with those before, " +
                                std::to_string(channels_max) + " are the limit");
        }
    }

    void check_stream_list(const std::string& where, const std::vector<int>& numbers) {
        for (std::size_t i = 0; i < numbers.size(); ++i) {
            if (numbers[i] < 0 || numbers[i] >= stream_count_) {
                problems_.push_back(element_name((where + ".stream").c_str(), i) +
                                    ": there is no stream " + std::to_string(numbers[i]) +
                                    ", only 0 to " + std::to_string(stream_count_ - 1));
            }
        }
    }

    // The longest segment name is that of the last channel and stream. Semaphore names always fit:
    // "/SRC_" + 31 + "_SEM_" + 10 digits + "_" leaves 9 for the stream and "_2".
    void check_segment_names(const std::string& where, const std::string& name, int channel) {
        if (channel < 1 || stream_count_ < 1) {
            return;
        }
        const int length = std::snprintf(nullptr, 0, "/%s/%s_%d_%d", shm_path_.c_str(),
                                         name.c_str(), channel - 1, stream_count_ - 1);
        if (length > segment_name_length_max) {
            problems_.push_back(where + ": segment names would have " + std::to_string(length) +
                                " characters, " + std::to_string(segment_name_length_max) + " fit");
        }
    }

    Problems& problems_;
    const std::string shm_path_;
    const int stream_count_;
    std::int64_t channels_ = 0;  // so far
};

}  // namespace

std::vector<std::string> ZAV_SHM_CONFIG::problems() const {
    Problems found = remarks_;
    check_root_path(found, "System.ROOT_PATH", text_of(root_path));
    check_folder(found, "System.SHM_PATH", text_of(shm_path));
    check_folder(found, "System.SEM_PATH", text_of(sem_path));
    check_count(found, "stream_num", stream_num, stream_configs.size());
    check_count(found, "distributor_num", distributor_num, distributor_configs.size());
    check_count(found, "receiver_num", receiver_num, receiver_configs.size());
    check_streams(found, streams());
    Name_Lists lists(found, text_of(shm_path), static_cast<int>(streams().size()));
    lists.check(Name_Lists::Side::producer, "Distributor", distributors());
    lists.check(Name_Lists::Side::consumer, "Receiver", receivers());
    return found;
}
