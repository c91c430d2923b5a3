// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "apps/centerd/inventory.h"
#include "apps/centerd/options.h"
#include "apps/centerd/outcome.h"
#include "control/replaced_file.h"

namespace zav_shm::centerd {

/// Who may be a client: whose processes may use the queues, the segments and the semaphores.
///
/// The center makes all of them for its own user alone, and knows no other way; the daemon opens
/// them to a group or to everybody before it announces that it serves. The segments' folder is
/// never writable for others: what lies in it can be used, and neither removed nor replaced. In the
/// rings' folder clients make files of their own, which get its group (setgid) and which nobody but
/// their users, and the own one, can remove or replace (sticky).
class Access_Rights {
public:
    /// @return a failure when the group does not exist.
    static Outcome resolve(const Options& options, Access_Rights& rights);

    File_Access file() const { return file_; }
    mode_t folder_mode() const;
    mode_t rings_folder_mode() const;
    std::string text() const;  // "mode 0660, group video"

    /// Makes the segments' folder, or takes over the one that is there, for the own user alone.
    static Outcome prepare_folder(const std::string& path);

    /// Refuses what an earlier center of another user left: the center could neither use nor
    /// replace it. Root can.
    static Outcome check_leftovers(const Inventory& inventory);

    /// Gives the folders, segments and semaphores, which the center has made, group and mode; and
    /// finds out that one is missing or has another length. Makes the rings' folder.
    Outcome apply(const Inventory& inventory) const;

    /// Makes that folder, or takes over the one that is there, and in it those of the producers
    /// that groups are kept out of.
    Outcome make_rings_folder(const Inventory& inventory) const;

private:
    Outcome apply_to_folder(const std::string& path, mode_t mode) const;
    Outcome apply_to_file(const char* kind, const Shared_File& made) const;

    File_Access file_;
    std::string group_name_;
};

}  // namespace zav_shm::centerd
