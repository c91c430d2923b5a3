// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "apps/tool/input_codec.h"
#include "apps/tool/key_request_action.h"
#include "apps/tool/rate.h"
#include "apps/tool/top/top_view.h"
#include "frame/frame_dual_subscriber.h"
#include "frame/reading_rules.h"

// What the command line asks for, one record per command. Checked: every number lies within the
// limits below, and every combination makes sense.

namespace zav_shm::tool {

inline constexpr std::size_t name_bytes_max = 31;  // of a producer or consumer
inline constexpr int channel_max = 4095;
inline constexpr int stream_max = 4095;
inline constexpr std::size_t frame_bytes_max = 2'147'483'519;  // the greatest page size
inline constexpr int pixels_max = 65'535;

/// The file name that means standard input or standard output.
inline constexpr const char* standard_stream = "-";

struct Common_Options {
    bool quiet = false;  // lines of the libraries go nowhere
    std::chrono::milliseconds wait{2000};
};

struct Channel_Options {
    std::string name;
    int channel = 0;
    int stream = 0;
};

/// How a producer keeps frames for its readers, and whether it waits for them.
struct Producer_Options {
    std::size_t history = 0;  // bytes; 0 as configured
    bool paced = false;       // wait for readers that are behind
    std::chrono::milliseconds pace_limit{200};
};

struct Publish_Options : Common_Options, Channel_Options, Producer_Options {
    std::string file;  // empty with `synthetic`
    bool synthetic = false;
    std::optional<Input_Codec> codec;  // nothing: tell from the stream
    Rate rate;                         // of pictures; of audio only whether it is paced
    bool has_rate = false;             // --fps was given
    bool loop = false;
    std::uint64_t count = 0;     // frames; 0 is no limit
    std::size_t unit_limit = 0;  // bytes; 0 is the stream's page size
    std::uint32_t width = 0;     // pixels; 0: from the stream
    std::uint32_t height = 0;
    std::size_t size = 4096;          // of a synthetic frame, bytes
    std::uint32_t key_interval = 25;  // of synthetic frames
    std::string index;                // file; empty: none
    Key_Request_Action on_key_request;
};

/// Whose frames a consumer takes, and from where on.
struct Consumer_Options : Channel_Options {
    std::string producer;
    bool tap = false;            // without a name, and without a center
    std::string folder = "shm";  // of a tap
    Start from = start::newest_key;
};

/// What begins an event.
struct Trigger_Options {
    std::vector<int> signals;
    bool lines = false;     // of standard input
    bool commands = false;  // `zav-shm trigger`

    bool any() const { return !signals.empty() || lines || commands; }
};

struct Record_Options : Common_Options, Consumer_Options {
    std::string file;       // empty: a series of files in `directory`
    std::string directory;  // empty: one file
    std::string pattern;    // of the names in it, for strftime(); empty: the tool's own
    std::chrono::nanoseconds segment{0};  // length of one file; 0 is no limit
    std::uint64_t segment_bytes = 0;      // 0 is no limit
    bool index_each = false;              // an index beside each file of the series
    Trigger_Options triggers;             // none: recording begins at once
    std::chrono::nanoseconds before{0};   // the first trigger
    std::chrono::nanoseconds after{0};    // the last one

    bool is_series() const { return !directory.empty(); }
    bool is_event_recording() const { return triggers.any(); }

    std::vector<int> streams;  // one, or two to switch between
    std::chrono::milliseconds switch_every{0};
    ZAV_SHM_Frame_Dual_Subscriber::Change change = ZAV_SHM_Frame_Dual_Subscriber::Change::gapless;
    std::uint64_t frames = 0;               // 0 is no limit
    std::chrono::milliseconds duration{0};  // 0 is no limit
    bool any_frame = false;                 // begin at once
    bool keep_all = false;                  // go on at once after a gap
    bool ask_for_key_frame = false;         // where one is waited for
    bool sync = false;
    bool strict = false;
    bool verify_synthetic = false;
    std::string index;  // file; empty: none
};

struct Trigger_Command_Options : Common_Options, Channel_Options {
    bool all = false;  // every channel and stream of the name
    std::string folder = "shm";
};

struct Watch_Options : Common_Options, Consumer_Options {
    bool json = false;
    bool verify_synthetic = false;
    std::uint64_t count = 0;  // lines; 0 is no limit
};

struct Status_Options : Common_Options {
    bool json = false;
    bool ask_center = false;
    std::string folder = "shm";
};

struct Top_Options : Common_Options {
    std::chrono::milliseconds interval{1000};
    Top_Order order = Top_Order::name;
    bool once = false;
    bool json = false;
    bool no_colour = false;
    std::string producer;  // empty: all
    std::string folder = "shm";
};

struct Names_Options : Common_Options {
    bool json = false;
    std::string folder = "shm";
};

struct Pair_Options : Common_Options, Channel_Options {
    std::string producer;
    bool json = false;
    bool all = false;  // every channel and stream of the name
};

struct Kick_Options : Common_Options {
    bool json = false;
    bool enable = false;
    std::string folder = "shm";
};

struct Query_Options : Common_Options {
    bool json = false;
    std::string type;
    std::string name;
};

struct Capture_Options : Common_Options {
    std::string file;
    std::vector<Consumer_Options> streams;
    std::uint64_t frames = 0;               // of all streams; 0 is no limit
    std::chrono::milliseconds duration{0};  // 0 is no limit
    bool sync = false;
    bool strict = false;
};

struct Replay_Options : Common_Options, Producer_Options {
    /// Frames of `from`, or of every producer when that is empty, are published as `to`.
    struct Name {
        std::string from;
        std::string to;
    };

    std::string file;
    std::vector<Name> names;
    double speed = 1;                   // 0: as fast as readers take them
    std::chrono::milliseconds from{0};  // the trace's begin
    bool loop = false;
    std::uint64_t count = 0;  // frames; 0 is no limit
};

struct Doctor_Options : Common_Options {
    bool json = false;
    bool verbose = false;
    std::string folder = "shm";
    std::string configuration;                // file; empty: the center's own
    std::chrono::milliseconds silence{5000};  // of a producer
};

struct Trace_Options : Common_Options {
    std::string file;
    std::string other;  // to compare with; empty: none
    bool list = false;
    bool json = false;
};

using Options =
    std::variant<Publish_Options, Record_Options, Watch_Options, Status_Options, Names_Options,
                 Pair_Options, Kick_Options, Query_Options, Trigger_Command_Options,
                 Capture_Options, Replay_Options, Trace_Options, Doctor_Options, Top_Options>;

}  // namespace zav_shm::tool
