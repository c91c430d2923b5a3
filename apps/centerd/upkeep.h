// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "apps/centerd/access_rights.h"
#include "apps/centerd/center_lock.h"
#include "apps/centerd/control_queues.h"
#include "apps/centerd/inventory.h"
#include "apps/centerd/object_watch.h"
#include "apps/centerd/outcome.h"
#include "apps/centerd/reader_sweeper.h"
#include "apps/centerd/reply_sweeper.h"
#include "apps/centerd/room_reserve.h"
#include "apps/centerd/status_page.h"

namespace zav_shm::centerd {

/// What the main thread does once a second beside a center that serves: looks whether everything
/// that makes it this configuration's center is still there, mends what can be mended beside
/// clients that go on, and writes the status. Reports what it mends.
class Upkeep {
public:
    struct Kept {
        Control_Queues& queues;
        const Access_Rights& rights;
        const Inventory& inventory;
        Center_Lock& folder_lock;
        Center_Lock& queue_lock;
        Status_Page& published;
        ZAV_SHM_CENTER& center;
    };

    /// To be made once everything is there. All outlive this.
    explicit Upkeep(const Kept& kept);

    /// Takes a lock whose file was removed again, and with it a folder that was.
    ///
    /// @return why not: another center serves here now, and this one has to leave everything to it.
    Outcome keep_locks();

    /// @return what is gone for good, so that new clients cannot come: "semaphore ... was removed".
    std::optional<std::string> find_loss();

    /// Queues, reply queue, the rings' folder and who reads them, page and status.
    void refresh();

private:
    Outcome keep(Center_Lock& lock) const;
    void keep_rings();
    void tell_of_outsiders();
    void keep_page() const;
    void write_status();
    bool write_status_with_the_reserve();

    const Kept kept_;
    Object_Watch objects_;
    Reply_Sweeper replies_{kept_.queues};
    Reader_Sweeper readers_{kept_.inventory.rings_folder};
    ino_t rings_folder_;           // its number
    std::uint64_t outsiders_ = 0;  // that have been told of
    Room_Reserve reserve_;         // for the status
    bool is_full_ = false;         // the former status took the reserve; reported once
    bool status_failed_ = false;   // reported once, until it works again
    bool rings_failed_ = false;    // the same
};

}  // namespace zav_shm::centerd
