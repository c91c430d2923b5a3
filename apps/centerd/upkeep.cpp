// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/upkeep.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "apps/centerd/guarded_folders.h"
#include "apps/centerd/room.h"
#include "apps/text/printable.h"

namespace zav_shm::centerd {

namespace {

// 0 when there is none.
ino_t number_of_folder(const std::string& path) {
    struct stat found {};
    return lstat(path.c_str(), &found) == 0 && S_ISDIR(found.st_mode) ? found.st_ino : 0;
}

}  // namespace

Upkeep::Upkeep(const Kept& kept)
    : kept_(kept),
      objects_(kept.inventory),
      rings_folder_(number_of_folder(kept.inventory.rings_folder)),
      reserve_(kept.inventory.segment_folder, Room::status_bytes(kept.inventory)) {}

Outcome Upkeep::keep_locks() {
    Outcome taken_over = keep(kept_.folder_lock);
    return taken_over ? taken_over : keep(kept_.queue_lock);
}

Outcome Upkeep::keep(Center_Lock& lock) const {
    if (lock.has_its_name()) {
        return std::nullopt;
    }
    Outcome failed = Access_Rights::prepare_folder(kept_.inventory.segment_folder);
    if (!failed) {
        failed = lock.take();
    }
    if (!failed) {
        report("lock " + lock.path() + " was removed; it is taken again");
        return std::nullopt;
    }
    failed->lines.insert(failed->lines.begin(), "lock " + lock.path() + " was removed");
    return failed;
}

std::optional<std::string> Upkeep::find_loss() {
    const Object_Watch::Finding found = objects_.look();
    for (const std::string& line : found.mended) {
        report(line);
    }
    return found.lost;
}

// A queue that somebody removed has no permissions when the center makes it anew.
void Upkeep::refresh() {
    if (kept_.queues.were_replaced()) {
        kept_.queues.prepare(kept_.rights.file());
    }
    if (const std::size_t swept = replies_.step(); swept > 0) {
        report("the reply queue was half full of messages that nobody took for 5 s; " +
               std::to_string(swept) + " were thrown away");
    }
    keep_rings();
    tell_of_outsiders();
    keep_page();
    write_status();
}

// Frames go on where a ring was open already; whoever comes later does not find the names of
// before.
void Upkeep::keep_rings() {
    const std::string& folder = kept_.inventory.rings_folder;
    const ino_t found = number_of_folder(folder);
    const bool is_there = found != 0 && found == rings_folder_;
    if (!is_there || !Guarded_Folders(kept_.inventory, kept_.rights.file()).are_there()) {
        const Outcome failed = kept_.rights.make_rings_folder(kept_.inventory);
        const std::string what = is_there ? "a producer's folder in " + folder : "folder " + folder;
        if (!failed) {
            report(what + " was removed or replaced; it is made again");
        } else if (!rings_failed_) {
            report(what + " was removed or replaced, and cannot be made again");
            report(*failed);
        }
        rings_failed_ = failed.has_value();
        rings_folder_ = failed ? 0 : number_of_folder(folder);
    }
    kept_.center.ring_consumers()->forget_gone();
    readers_.step();
}

// One line for all of a second: whoever asks without end cannot fill a log.
void Upkeep::tell_of_outsiders() {
    const Refused_Outsiders refused = kept_.center.refused_outsiders();
    const std::uint64_t more = refused.count - std::exchange(outsiders_, refused.count);
    if (more == 1) {
        report("refused: " + printable(refused.latest));
    } else if (more > 1) {
        report("refused " + std::to_string(more) +
               " requests from outside of groups, the latest: " + printable(refused.latest));
    }
}

void Upkeep::keep_page() const {
    if (!kept_.published.has_page() && kept_.published.write_page()) {
        report("the center page was removed or replaced; it is written again");
    }
}

void Upkeep::write_status() {
    bool written = kept_.published.write_status(kept_.center);
    if (written) {
        is_full_ = false;
        reserve_.hold();
    } else if (errno == ENOSPC || errno == EDQUOT) {
        written = write_status_with_the_reserve();
    }
    if (!written && !status_failed_) {
        report(kept_.published.status_path() + " cannot be written: " + std::strerror(errno) +
               "; it stays as it is until there is room");
    }
    status_failed_ = !written;
}

// The room goes to the new status, and that of the former one becomes the reserve, unless somebody
// else is faster.
bool Upkeep::write_status_with_the_reserve() {
    if (!is_full_) {
        report(
            "/dev/shm is full (df /dev/shm, df -i /dev/shm); channels have their room and go on");
        is_full_ = true;
    }
    reserve_.give_up();
    const bool written = kept_.published.write_status(kept_.center);
    const int error = errno;
    reserve_.hold();
    errno = error;
    return written;
}

}  // namespace zav_shm::centerd
