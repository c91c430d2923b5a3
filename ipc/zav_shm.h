// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

/// One POSIX shared-memory segment: created or opened by name, sized, mapped read-write or
/// read-only, and switched to another segment while in use.
///
/// Names    begin with a slash and may name a folder, "/shm/CAM_LOOP_0_1"; they are resolved
///          below the system's shared-memory directory, /dev/shm, and never leave it. At most
///          255 characters; a null, longer or climbing ("..") name is refused.
/// Owner    the center creates segments, clients map them. Destroying a handle unmaps and
///          leaves the segment in place: segments outlive every handle and every process.
/// Threads  none of its own and no lock: one thread at a time uses a handle.
/// Errors   printed as documented and returned as false, 0xFFFFFFFF or a status; nothing
///          throws. After a failure `mem_addr` is null (nothing opened) or MAP_FAILED (not
///          mapped); ask is_mapped() before touching memory.
/// Crash    a killed process leaves the segment as it was, a frame perhaps half written.
class IPC_SHMEMORY {
public:
    /// Result of shm_change_path.
    enum Change { unchanged = 0, switched = 1, closed = 2 };

    /// Creates (or opens) and sizes the segment and maps it read-write.
    ///
    /// @param oflag  flags of open(2), O_CREAT | O_RDWR in the center.
    /// @param mode   permissions of a new segment, 0600 in the center.
    /// @param size   bytes; a negative one is refused and creates nothing.
    IPC_SHMEMORY(const char* name, int oflag, unsigned mode, int size);

    /// Opens an existing segment and maps its whole size (see get_shm_path_size), read-only
    /// when `oflag` is O_RDONLY and read-write otherwise.
    IPC_SHMEMORY(const char* name, int oflag);

    ~IPC_SHMEMORY();

    IPC_SHMEMORY(const IPC_SHMEMORY&) = delete;
    IPC_SHMEMORY& operator=(const IPC_SHMEMORY&) = delete;

    /// Opens the segment, sets its length to `size` and reserves its memory, so that a full
    /// file system shows here and not as SIGBUS in whoever touches the segment first.
    ///
    /// @return false when it could not be opened ("Shm open %s fail %s\n" is printed) or not
    ///         be given its size; an existing segment then keeps its former length.
    bool zav_shm_create(const char* name, int oflag, unsigned mode);

    /// Opens an existing segment without sizing or mapping it. Prints nothing.
    bool zav_shm_open(const char* name, int oflag);

    /// Map the opened segment and close its descriptor, whose number stays in `sid`. A segment
    /// shorter than `size` is not mapped: touching memory behind its end would raise SIGBUS.
    bool zav_shm_map_rw();
    bool zav_shm_map_readonly();

    /// Clears the name and unmaps.
    ///
    /// @return 0, also when nothing was mapped; -1 when unmapping failed.
    int zav_shm_close();

    /// Removes the segment's name; existing mappings stay.
    ///
    /// @return 0 or -1 with errno, as shm_unlink.
    int zav_shm_destroy();

    std::string get_shm_path() const;

    /// Size in bytes of the segment file `name` below the root path; 0xFFFFFFFF on failure,
    /// which no mapping accepts.
    static unsigned get_shm_path_size(const char* name);

    /// Points the handle at another segment, mapped read-only whatever it was before. Prints
    /// "Change SHM from %s to %s\n".
    ///
    /// @return switched (also when the mapping failed), unchanged for the current name, or
    ///         closed when `path` is null, empty or does not exist: nothing is mapped then.
    int shm_change_path(const char* path);

    /// Directory in which segment sizes are looked up. Set before any segment is opened.
    static void set_root_path(const std::string& path);

    /// True when the stored names are equal.
    bool operator==(const IPC_SHMEMORY& other) const;

    /// True when `mem_addr` may be read (and written, if mapped read-write).
    bool is_mapped() const;

    /// Bytes that may be touched from `mem_addr` on: `size` rounded up to whole memory pages,
    /// 0 when nothing is mapped.
    std::size_t mapped_bytes() const;

    int sid = -1;
    std::uint32_t size = 0;
    char name[256] = {};
    void* mem_addr = nullptr;

    /// What set_root_path() stores. Objects of static storage may call that before the initialisers
    /// of this class have run, but must not name the string itself then.
    static std::string& root_path;

private:
    bool open_descriptor(const char* new_name, int oflag, unsigned mode);
    bool set_length();
    bool map(int protection, const char* failure);
    void unmap_former();
    void close_descriptor();

    bool descriptor_open_ = false;  // `sid` keeps its number after the descriptor is closed
};
