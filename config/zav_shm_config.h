// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/json.h>

#include <cstdint>
#include <span>
#include <string>
#include <vector>

// NOLINTBEGIN(bugprone-reserved-identifier): the documented names of the two records.

/// One stream. A stream is addressed by its position in the list, 0 being the first.
struct _SHM_STREAM_CONFIG_ {
    int index = 0;      // stored and printed, used for nothing
    int page_size = 0;  // payload bytes of each segment of this stream; the segment has 128 more
    int history_bytes = 0;   // of each ring of this stream; 0: twice the page size
    std::string group = {};  // whose processes alone may read it; empty: all clients
};

/// One producer or consumer name.
struct _SHM_DIST_RECV_CONFIG_ {
    char name[32] = {};
    int channel = 0;          // how many: they are numbered 0 .. channel - 1
    std::vector<int> stream;  // a request for stream s is accepted when s < stream.size()
    // Of producers alone; empty: all clients.
    std::string group = {};      // whose processes alone may read its streams
    std::string producers = {};  // whose processes alone may produce under this name
};

// NOLINTEND(bugprone-reserved-identifier)

/// What a ring of this stream keeps at least, unless its publisher wants another size.
inline std::int64_t ring_history_bytes(const _SHM_STREAM_CONFIG_& stream) {
    return stream.history_bytes > 0 ? stream.history_bytes : std::int64_t{2} * stream.page_size;
}

/// The group whose processes alone may read this stream of this producer; empty: all clients.
inline const std::string& readers_group(const _SHM_DIST_RECV_CONFIG_& producer,
                                        const _SHM_STREAM_CONFIG_& stream) {
    return producer.group.empty() ? stream.group : producer.group;
}

/// The center's configuration: paths, streams, producers ("Distributor") and consumers
/// ("Receiver"), from a JSON file or from the built-in defaults. docs/configuration.md describes
/// the file.
///
/// Use      construct, then either parse_config or load_default. A second file read into the same
///          object is appended to the lists while the counts become those of the second.
/// Owner    the object owns its records: clear_config and the destructor delete them.
/// Threads  none of its own and no lock. Not changed any more once a center has been given it.
/// Errors   the documented texts on standard output and a result of 0; no content of a file makes
///          it throw or crash. error() says what was wrong and where; problems() says what loads
///          and nevertheless should not be run with, warnings() what is probably not meant.
/// Stack    parse_config takes up to half a megabyte, for a file with 1000 levels of brackets.
class ZAV_SHM_CONFIG {
public:
    ZAV_SHM_CONFIG() = default;
    ~ZAV_SHM_CONFIG();

    ZAV_SHM_CONFIG(const ZAV_SHM_CONFIG&) = delete;
    ZAV_SHM_CONFIG& operator=(const ZAV_SHM_CONFIG&) = delete;

    /// Reads, parses and verifies a regular file of 1 MiB at most; its text ends at the first
    /// zero byte.
    ///
    /// @return 1; or 0 when it could not be opened ("Failed to open file %s\n" is printed), not
    ///         be read or is no JSON (silently, and the object keeps what it held), or when a
    ///         section failed (see verify_config; the object is empty then).
    int parse_config(const char* path);

    /// Parses `text` into `root` only. Comments are accepted.
    bool parse_config_with_json(const std::string& text);

    /// Reads the sections of `root` in the order System, Stream, Distributor, Receiver.
    ///
    /// @return 1, or 0 at the first section that fails; "Parse Stream Fail", "Parse Distributor
    ///         Fail" or "Parse Receiver Fail" is printed then, and what was read so far is kept.
    int verify_config();

    /// The sections one by one; 1 on success, 0 on failure. They append to the lists and set the
    /// count. What is missing in "System" has a default, so that section never fails.
    int parse_system_config();
    int parse_stream_config();
    int parse_dist_config();
    int parse_recv_config();

    /// What both name lists have in common. Stream numbers from 0 to `stream_num`, inclusive, are
    /// accepted.
    int parse_dist_recv_config(const char* key, std::vector<_SHM_DIST_RECV_CONFIG_*>& list,
                               int& count);

    /// Empties everything but `root`, error() and what warnings() says of the text.
    void clear_config();

    /// Writes the configuration to standard output.
    void print_config();

    /// Two streams of 1 MiB, three producers, four consumers. Their stream lists are empty, so
    /// clients are refused every stream until a file lists some.
    void load_default();

    /// Why the latest loading operation failed: place, value and limit, for instance
    /// "Stream[0].page_size is missing". Empty after a success.
    const std::string& error() const { return error_; }

    /// What a program should refuse to run with although it loads: one line each, empty when all
    /// is well. Looks at the present content.
    std::vector<std::string> problems() const;

    /// What is probably not meant although a center can be run with it: one line each. Of the text
    /// that was parsed last, whether it loaded or not: a key given twice, unknown keys that nearly
    /// are known ones, and what follows the object. Of the present content: stream lists that do
    /// not accept what they name, and names that can hardly be typed.
    std::vector<std::string> warnings() const;

    /// The records to iterate over: as many as the count says, and never more than there are.
    std::span<_SHM_STREAM_CONFIG_* const> streams() const;
    std::span<_SHM_DIST_RECV_CONFIG_* const> distributors() const;
    std::span<_SHM_DIST_RECV_CONFIG_* const> receivers() const;

// Versions of jsoncpp mark this reader as deprecated. Its leniency, which the newer one lacks, is
// part of the file format.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    Json::Reader reader;
#pragma GCC diagnostic pop
    Json::Value root;  // the document parsed last; null before the first

    // 31 characters at most.
    char root_path[32] = {};  // the folder under which the next two are made
    char shm_path[32] = {};   // folder of the segments, and the prefix of their names
    char sem_path[32] = {};   // folder kept for semaphores

    // Normally the lengths of the lists below.
    int stream_num = 0;
    int distributor_num = 0;
    int receiver_num = 0;

    bool kick_idle = false;  // for the host: nothing in the libraries reads it

    // Owned. Raw because the documented operations hand the lists out as such.
    std::vector<_SHM_STREAM_CONFIG_*> stream_configs;
    std::vector<_SHM_DIST_RECV_CONFIG_*> distributor_configs;
    std::vector<_SHM_DIST_RECV_CONFIG_*> receiver_configs;

private:
    std::string error_;
    std::vector<std::string> remarks_;  // what was read otherwise than the file has it
    std::vector<std::string> document_warnings_;
};
