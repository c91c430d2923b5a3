// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "stream/channel_key.h"

/// The names of one channel side's kernel objects, derived from the channel's key:
///
///   shm_path        /<segment root>/<name>_<channel>_<stream>      the frame slot
///   sem_path_src    /<side>_<key name>_SEM_<channel>_<stream>_0    semaphore 0
///   sem_path_dst    ... _1                                         semaphore 1
///   sem_path_exist  ... _2                                         semaphore 2
///
/// Each is 63 characters at most; a longer one is cut there. Semaphores live in the system's
/// flat namespace, so the semaphore root takes no part in their names.
class IPC_SHM_CTRL_INFO {
public:
    /// @param side  "SRC" for the producer's side, "DST" for a consumer's.
    /// @param name  the stream whose segment is meant, usually the key's own.
    IPC_SHM_CTRL_INFO(const std::string& side, const std::string& name,
                      const Shm_Stream_Transmission_Index& key);
    IPC_SHM_CTRL_INFO(const IPC_SHM_CTRL_INFO&) = default;
    IPC_SHM_CTRL_INFO& operator=(const IPC_SHM_CTRL_INFO&) = default;
    virtual ~IPC_SHM_CTRL_INFO() = default;

    /// Empties the three semaphore names and then the segment name.
    void reset();

    /// Class-wide; the center sets both once, before any record is made.
    static void set_shm_root_path(const std::string& path);
    static void set_sem_root_path(const std::string& path);

    std::string shm_path;
    std::string sem_path_src;
    std::string sem_path_dst;
    std::string sem_path_exist;

    // What these store; a center of static storage may call them before the initialisers of this
    // class have run, but nobody must name the strings themselves then.
    static std::string& shm_root_path;
    static std::string& sem_root_path;
};

/// The producer's side of a channel.
class IPC_SHM_SRC_CTRL_INFO : public IPC_SHM_CTRL_INFO {
public:
    explicit IPC_SHM_SRC_CTRL_INFO(const Shm_Stream_Transmission_Index& key);
};

/// A consumer's side of a channel.
class IPC_SHM_DST_CTRL_INFO : public IPC_SHM_CTRL_INFO {
public:
    explicit IPC_SHM_DST_CTRL_INFO(const Shm_Stream_Transmission_Index& key);

    /// With the segment of the stream `name` instead of the key's own.
    IPC_SHM_DST_CTRL_INFO(const Shm_Stream_Transmission_Index& key, const std::string& name);
};
