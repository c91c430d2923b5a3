// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "bindings/c/errors.h"
#include "bindings/c/zav_shm.h"

// Structs of callers that were built with an earlier version of the header. A member is known by
// its place, `size` says how many bytes the caller's struct has; what it does not have reads as 0,
// and is not written. A longer struct than this library knows is refused, and nothing behind what
// it knows is touched: most sizes that are too great are those that somebody forgot to set.

namespace zav_shm::c_interface {

/// How many bytes the struct had in its first version; fewer are refused.
template <class Struct>
inline constexpr std::size_t first_version_bytes = sizeof(Struct);

inline zav_shm_status refuse_size(const char* name, std::uint32_t size, std::size_t own) {
    return fail(ZAV_SHM_BAD_SIZE, std::string(name) + ".size is " + std::to_string(size) +
                                      ", of library " + zav_shm_version() + " it is " +
                                      std::to_string(own));
}

template <class Struct>
std::uint32_t size_of(const Struct* caller) {
    std::uint32_t size = 0;
    std::memcpy(&size, caller, sizeof size);
    return size;
}

/// OK for a size that a version may have.
template <class Struct>
zav_shm_status check_size(const Struct* caller, const char* name) {
    static_assert(offsetof(Struct, size) == 0);
    if (caller == nullptr) {
        return fail_for_null(name);
    }
    const std::uint32_t size = size_of(caller);
    if (size < first_version_bytes<Struct> || size > sizeof(Struct)) {
        return refuse_size(name, size, sizeof(Struct));
    }
    return ZAV_SHM_OK;
}

/// Reads what the caller has said into a struct of this version.
template <class Struct>
zav_shm_status read_struct(const Struct* caller, const char* name, Struct& into) {
    if (const auto status = check_size(caller, name); status != ZAV_SHM_OK) {
        return status;
    }
    into = {};
    std::memcpy(&into, caller, size_of(caller));
    return ZAV_SHM_OK;
}

/// Writes into the caller's struct, whose size has been checked, what it has room for. Its size
/// stays.
template <class Struct>
void write_struct(Struct from, Struct* caller) {
    from.size = size_of(caller);
    std::memcpy(caller, &from, from.size);
}

}  // namespace zav_shm::c_interface
