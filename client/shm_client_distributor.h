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

/// What a producer process builds to publish frames: asks the center what is configured under its
/// name, registers pairs of channel and stream, and holds the endpoint of each registered pair.
///
///   ZAV_SHM_CLIENT_DISTRIBUTOR client("CAM_LOOP", true);
///   client.get_distributor(0, 0)->distribute_frame(&frame);
///
/// Owner    owns the endpoints; a pointer to one is valid until its pair is deregistered. Frames
///          then go through the endpoint alone.
/// Threads  one thread at a time for the object, and one that talks to the center per process (see
///          ZAV_SHM_CLIENT_BASE). Endpoints may be used by other threads, but are not to be in use
///          while their pair is deregistered.
/// Blocking every request waits for its reply without limit. get_distributor tries for ever.
/// Errors   only query_shm, and with it construction, throws, a fixed `const char*`: "Invalid
///          Command" (the reply is to something else), "Invalid Status" (the name is not
///          configured) or "Invalid Page Size". Refused registrations show in the printed reply
///          only.
/// Output   requests, replies and progress are printed to standard output.
/// Crash    a killed producer stays registered, and its relay idles; the same name may register
///          again. When the center was restarted, the endpoints are orphans: no frame arrives any
///          more until the pair is deregistered and registered again.
class ZAV_SHM_CLIENT_DISTRIBUTOR : public ZAV_SHM_CLIENT_BASE {
public:
    /// Queries, and registers every pair when `auto_register` is set and the query took place.
    ZAV_SHM_CLIENT_DISTRIBUTOR(const std::string& name, bool auto_register);

    /// Deregisters every pair within the counts, whether it was registered or not. An endpoint
    /// that the center did not confirm to have let go is not deleted.
    ~ZAV_SHM_CLIENT_DISTRIBUTOR();
    ZAV_SHM_CLIENT_DISTRIBUTOR(const ZAV_SHM_CLIENT_DISTRIBUTOR&) = delete;
    ZAV_SHM_CLIENT_DISTRIBUTOR& operator=(const ZAV_SHM_CLIENT_DISTRIBUTOR&) = delete;

    /// Asks for the counts and page sizes, and where segments lie, which is set for the whole
    /// process. Page sizes of a second query are appended behind those of the first.
    ///
    /// @return 1; 0 when there was no exchange.
    /// @throws see above; counts and page sizes are then as before.
    unsigned query_shm();

    /// Register one pair (stream 0 by default), or every pair, channel by channel. The reply's
    /// status is not looked at: a refused registration makes an endpoint on the names that the
    /// reply carries, none for instance, whose calls fail. A pair that has an endpoint keeps it.
    ///
    /// @return 0, with nothing sent, when channel or stream is not below its count; 1 otherwise,
    ///         whatever the center answered.
    int reg_shm();
    int reg_shm(int channel);
    int reg_shm(int channel, int stream);

    /// Deregister one pair (stream 0 by default), or every pair, channel by channel. The endpoint
    /// goes when the center confirms.
    ///
    /// @return 1, whatever the center answered.
    int dereg_shm();
    int dereg_shm(int channel);
    int dereg_shm(int channel, int stream);

    /// The endpoint of the pair, which is registered first if it has none, again and again until
    /// that succeeds: does not return for a pair that is out of range or that the center does not
    /// answer for.
    ZAV_SHM_Stream_Distributor* get_distributor(int channel, int stream);

    int get_channel_num() const { return layout_.channel_num(); }
    int get_stream_num() const { return layout_.stream_num(); }

    /// Page size of stream `index` in bytes, the greatest payload of a frame; 0 when there is none.
    int get_shm_page_size(int index) const { return layout_.page_size(index); }

protected:
    const std::string name;  // as configured in the center

private:
    using Pair = std::pair<int, int>;  // channel, stream

    Json::Value request(const char* command, int channel, int stream) const;
    void insert(int channel, int stream, std::unique_ptr<ZAV_SHM_Stream_Distributor> endpoint);

    zav_shm::Name_Layout layout_;
    std::map<Pair, std::unique_ptr<ZAV_SHM_Stream_Distributor>> endpoints_;
};
