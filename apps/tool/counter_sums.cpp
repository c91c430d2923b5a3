// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/counter_sums.h"

namespace zav_shm::tool {

void add(Publisher_Counters& sum, const Publisher_Counters& more) {
    sum.published += more.published;
    sum.bytes += more.bytes;
    sum.too_large += more.too_large;
    sum.refused += more.refused;
    sum.recoveries += more.recoveries;
    sum.waits += more.waits;
    sum.given_up += more.given_up;
}

void add(Subscriber_Counters& sum, const Subscriber_Counters& more) {
    sum.overtaken += more.overtaken;
    sum.left_out += more.left_out;
    sum.no_memory += more.no_memory;
    sum.dropped += more.dropped;
    sum.skipped += more.skipped;
    sum.torn += more.torn;
    sum.foreign += more.foreign;
    sum.recoveries += more.recoveries;
}

}  // namespace zav_shm::tool
