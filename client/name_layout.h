// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

namespace zav_shm {

class Control_Reply;

/// How many channels and streams the center has configured for a client's name, and how large
/// their pages are: what the last successful query told. All zero before one.
///
/// Nothing bounds the counts: they are the center's word.
class Name_Layout {
public:
    /// Takes over the counts of a reply and appends its page sizes behind those that earlier
    /// queries brought. A count that is missing or no integer leaves the former one.
    ///
    /// @throws the text "Invalid Page Size", after printing it as a line, when the reply does not
    ///         have exactly one page size per stream; nothing is taken over then. No page sizes
    ///         and no stream is right.
    void take(const Control_Reply& reply);

    int channel_num() const { return channel_num_; }
    int stream_num() const { return stream_num_; }

    /// Page size in bytes of stream `index`; 0 when `index` is negative, greater than the stream
    /// count, or has no page size. The index equal to the count passes the check on purpose: the
    /// first page size of a second query is there.
    int page_size(int index) const;

    /// Calls `action(channel, stream)` for every pair, channel by channel. Both counts are read
    /// afresh at every step, so an action may change them.
    template <class Action>
    void for_each_pair(const Action& action) const {
        for (int channel = 0; channel < channel_num_; ++channel) {
            for (int stream = 0; stream < stream_num_; ++stream) {
                action(channel, stream);
            }
        }
    }

private:
    int channel_num_ = 0;
    int stream_num_ = 0;
    std::vector<int> page_sizes_;  // bytes
};

}  // namespace zav_shm
