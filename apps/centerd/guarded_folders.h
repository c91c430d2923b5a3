// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <string>

#include "apps/centerd/inventory.h"
#include "apps/centerd/outcome.h"
#include "control/replaced_file.h"

namespace zav_shm::centerd {

/// The folders of the producers that the configuration gives groups to: ipc/ring_place.h has what
/// lies in them and why.
///
/// What is right already is left alone. Where a group has changed, the rings of before go, so that
/// their publishers, which see that, make them anew with the rights of now; and so do the rings of
/// a producer that has or has no folder of its own any more.
class Guarded_Folders {
public:
    /// @param access  of the clients of everything else
    Guarded_Folders(const Inventory& inventory, const File_Access& access)
        : inventory_(inventory), access_(access) {}

    /// Makes all of them, in the rings' folder that is there, and removes those of producers that
    /// need none.
    Outcome make() const;

    /// True when each of them is there.
    bool are_there() const;

    /// Removes what nobody uses.
    static void remove_leftovers(const std::string& rings);

private:
    struct Rights {
        mode_t mode = 0;
        gid_t group = 0;
    };
    Rights rights_of(const Guarded_Folder& folder) const;
    Rights rights_of(const Readers_File& file) const;
    Outcome make(const Guarded_Folder& folder) const;
    Outcome make(const Readers_File& file) const;
    void remove_others() const;

    const Inventory& inventory_;
    const File_Access access_;
};

}  // namespace zav_shm::centerd
