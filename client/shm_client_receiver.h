// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/forwards.h>

#include <map>
#include <memory>
#include <string>
#include <utility>

#include "client/name_layout.h"
#include "client/shm_client_base.h"
#include "stream/zav_stream_processor.h"

namespace zav_shm {
class Control_Reply;
}

/// What a consumer process builds to take frames: registers pairs of channel and stream together
/// with the name of the producer that is to feed them, holds the endpoint of each registered pair,
/// and moves all pairs to another producer while frames are being read.
///
///   ZAV_SHM_CLIENT_RECEIVER client("PLAYER", "CAM_LOOP");
///   client.get_receiver(0, 0)->receive_frame(&frame);
///   client.pair_src("CAM_REC");
///
/// Owner    owns the endpoints; a pointer to one is valid until its pair is deregistered, also
///          across pair_src.
/// Threads  one thread at a time for the object, and one that talks to the center per process (see
///          ZAV_SHM_CLIENT_BASE). Other threads may read frames from the endpoints meanwhile, also
///          during pair_src, but not while their pair is deregistered.
/// Blocking every request waits for its reply without limit. get_receiver and is_register try for
///          ever.
/// Errors   query_shm and construction throw a fixed `const char*`: "Invalid Command" (the reply
///          is to something else), "Invalid Status" (the name is not configured) or "Invalid Page
///          Size"; pair_src throws "Invalid Pair". Refused registrations are silent.
/// Crash    a killed consumer stays paired, and costs its relay a wait per cycle until the center
///          kicks it or the same name registers again. When the center was restarted, the
///          endpoints are orphans: no frame arrives any more until the pair is deregistered and
///          registered again.
class ZAV_SHM_CLIENT_RECEIVER : public ZAV_SHM_CLIENT_BASE {
public:
    /// Queries and registers nothing.
    explicit ZAV_SHM_CLIENT_RECEIVER(const std::string& name);

    /// Queries, and registers every pair when the query took place.
    ZAV_SHM_CLIENT_RECEIVER(const std::string& name, const std::string& pair_name);

    /// Deregisters every pair within the counts, whether it was registered or not, between two
    /// printed lines. An endpoint that the center did not confirm to have let go is not deleted.
    ~ZAV_SHM_CLIENT_RECEIVER();
    ZAV_SHM_CLIENT_RECEIVER(const ZAV_SHM_CLIENT_RECEIVER&) = delete;
    ZAV_SHM_CLIENT_RECEIVER& operator=(const ZAV_SHM_CLIENT_RECEIVER&) = delete;

    /// Asks for the counts and page sizes, and where segments lie, which is set for the whole
    /// process. Page sizes of a second query are appended behind those of the first.
    ///
    /// @return 1; 0 when there was no exchange.
    /// @throws see above; counts and page sizes are then as before.
    unsigned query_shm();

    // ---- registration ----

    /// Register one pair (stream 0 by default), or every pair, channel by channel, with the stored
    /// producer. There is no range check.
    ///
    /// @return for one pair 0, with nothing sent, when no producer is stored; 1 otherwise, whatever
    ///         the center answered.
    int reg_shm();
    int reg_shm(int channel);
    int reg_shm(int channel, int stream);

    /// Register with this producer, which is stored when the center agrees. A pair that has an
    /// endpoint keeps it, on the segment that it reads.
    ///
    /// @return 1, whatever the center answered.
    int reg_shm(const std::string& pair_name);
    int reg_shm(int channel, const std::string& pair_name);
    int reg_shm(int channel, int stream, const std::string& pair_name);

    /// Deregister one pair (stream 0 by default), or every pair, channel by channel, with progress
    /// lines. The endpoint goes when the center confirms.
    ///
    /// @return 1, whatever the center answered.
    int dereg_shm();
    int dereg_shm(int channel);
    int dereg_shm(int channel, int stream);

    // ---- pairing ----

    /// Moves every pair, channel by channel, to another producer. An endpoint changes its segment
    /// between two frames of a thread that reads it; a pair without one is registered.
    ///
    /// @throws the text "Invalid Pair", after printing it without a line end, at the first pair
    ///         that the center refuses. The pairs before it stay with the new producer, and so does
    ///         the stored name if there were any; the others are not touched. A pair whose request
    ///         could not be sent is passed over.
    void pair_src(const std::string& pair_name);

    // ---- endpoints ----

    /// The endpoint of the pair, which is registered first if it has none, again and again until
    /// that succeeds: does not return without a stored producer, nor for a pair that the center
    /// refuses or does not answer for.
    ZAV_SHM_Stream_Receiver* get_receiver(int channel, int stream);

    /// True; registers, or tries for ever, as get_receiver does.
    bool is_register(int channel, int stream);

    int get_channel_num() const { return layout_.channel_num(); }
    int get_stream_num() const { return layout_.stream_num(); }

    /// Page size of stream `index` in bytes, the room that a frame's payload needs; 0 when there
    /// is none.
    int get_shm_page_size(int index) const { return layout_.page_size(index); }

protected:
    const std::string name;  // as configured in the center
    std::string pair_name;   // producer of the last agreed registration or pairing; empty: none

private:
    using Pair = std::pair<int, int>;  // channel, stream

    Json::Value request(const char* command, int channel, int stream) const;
    void pair_one(int channel, int stream, const std::string& producer);
    void insert(int channel, int stream, const zav_shm::Control_Reply& reply);

    zav_shm::Name_Layout layout_;
    std::map<Pair, std::unique_ptr<ZAV_SHM_Stream_Receiver>> endpoints_;
};
