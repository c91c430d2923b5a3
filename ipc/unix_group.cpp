// SPDX-License-Identifier: Apache-2.0
#include "ipc/unix_group.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <charconv>
#include <cstddef>
#include <vector>

namespace zav_shm {

namespace {

constexpr std::size_t entry_bytes_min = 1024;
constexpr std::size_t entry_bytes_max = std::size_t{1024} * 1024;

// Calls it with more and more room until the entry fits. False when there is none.
template <class Entry, class Find>
bool find_entry(Entry& entry, std::vector<char>& buffer, const Find& find) {
    for (std::size_t bytes = entry_bytes_min; bytes <= entry_bytes_max; bytes *= 2) {
        buffer.resize(bytes);
        Entry* found = nullptr;
        const int error = find(&entry, buffer.data(), buffer.size(), &found);
        if (error != ERANGE) {
            return found != nullptr;
        }
    }
    return false;
}

}  // namespace

std::optional<gid_t> group_id(const std::string& name) {
    group entry{};
    std::vector<char> buffer;
    const bool is_name =
        find_entry(entry, buffer, [&name](group* into, char* room, std::size_t bytes, group** at) {
            return getgrnam_r(name.c_str(), into, room, bytes, at);
        });
    if (is_name) {
        return entry.gr_gid;
    }
    gid_t number = 0;
    const char* const end = name.data() + name.size();
    const auto [read_to, error] = std::from_chars(name.data(), end, number);
    const bool is_number = error == std::errc() && read_to == end;
    return is_number && number != static_cast<gid_t>(-1) ? std::optional(number) : std::nullopt;
}

std::string group_title(gid_t group) {
    struct group entry {};
    std::vector<char> buffer;
    const bool is_there =
        find_entry(entry, buffer,
                   [group](struct group* into, char* room, std::size_t bytes, struct group** at) {
                       return getgrgid_r(group, into, room, bytes, at);
                   });
    return is_there ? entry.gr_name : std::to_string(group);
}

std::string user_title(uid_t user) {
    passwd entry{};
    std::vector<char> buffer;
    const bool is_there =
        find_entry(entry, buffer, [user](passwd* into, char* room, std::size_t bytes, passwd** at) {
            return getpwuid_r(user, into, room, bytes, at);
        });
    return is_there ? entry.pw_name : std::to_string(user);
}

}  // namespace zav_shm
