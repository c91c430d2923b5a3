// SPDX-License-Identifier: Apache-2.0
#include <cstdio>

#include "ipc/monotonic_clock.h"
#include "ring/ring_follower.h"

using Look = zav_shm::Ring_Reader::Look;

int main() {
    zav_shm::Ring_Follower ring("/dev/shm/example", zav_shm::Ring_Memory::Reading::mapped);
    zav_shm::Ring_Record record;
    for (int number = 0; number < 50;) {
        zav_shm::Ring_Reader* const reader = ring.reader();
        const Look seen = reader != nullptr ? reader->look(record) : Look::nothing;
        if (seen == Look::record) {
            const char letter = static_cast<char>(record.bytes.front());
            if (reader->is_in_reach(record.number)) {  // else it has been overwritten meanwhile
                std::printf("record %d: %zu times %c\n", ++number, record.bytes.size(), letter);
            }
            reader->advance();
        } else if (seen == Look::overtaken) {
            reader->move_to(reader->safe_oldest());
        } else if (seen == Look::broken) {
            ring.give_up("its writer has damaged it");
        } else if (ring.changes_over()) {
            ring.reader()->move_to(ring.reader()->oldest());
        } else {
            ring.wait(zav_shm::monotonic_ns() + 1'000'000'000);
        }
    }
}
