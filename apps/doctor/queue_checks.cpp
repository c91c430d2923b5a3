// SPDX-License-Identifier: Apache-2.0
//
// The two control queues: which they are, who owns them, what is in them, and what the kernel
// allows.
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "apps/centerd/center_lock.h"
#include "apps/doctor/checks.h"
#include "apps/doctor/queues.h"
#include "ipc/shared_memory_folder.h"
#include "ipc/zav_msg_q.h"

namespace zav_shm::doctor {

namespace {

constexpr std::uint64_t usual_queue_bytes = 16384;
constexpr unsigned key_below_project = 0x00ffffffU;  // what of a key comes from the folder

const char* const same_tmp =
    "give center and clients the same /tmp (PrivateTmp=no, the container's -v /tmp:/tmp), then "
    "start them again";

std::string queue_text(const char* name, key_t key) {
    return std::string(name) + " queue " + key_text(key);
}

std::string removal(const Queue& queue) { return "ipcrm -q " + std::to_string(queue.id); }

std::string of_bytes(const Queue& queue) {
    return std::to_string(queue.bytes) + " of " + std::to_string(queue.bytes_max) + " bytes, " +
           std::to_string(queue.messages) + " messages";
}

std::string sender_of(const Queue& queue) {
    const auto facts = facts_of(queue.last_sender);
    return process_text(queue.last_sender, facts ? facts->command : "gone by now");
}

std::uint64_t kernel_limit(const char* name) {
    std::uint64_t value = UINT64_MAX;
    std::ifstream(std::string("/proc/sys/kernel/") + name) >> value;
    return value;
}

void check_limit(const char* name, std::uint64_t least, std::uint64_t wanted, Findings& findings) {
    const std::uint64_t value = kernel_limit(name);
    if (value < wanted) {
        findings.push_back({value < least ? Severity::error : Severity::warning, "queue_limits",
                            std::string("kernel.") + name,
                            "is " + std::to_string(value) + " bytes, " + std::to_string(wanted) +
                                " are wanted" +
                                (value < least ? ": no request fits" : ": few requests fit"),
                            "sysctl -w kernel." + std::string(name) + "=" + std::to_string(wanted) +
                                ", then start the center again"});
    }
}

bool may_use(const Queue& queue) {
    if (geteuid() == 0) {
        return true;
    }
    const unsigned shift = geteuid() == queue.owner ? 6 : getegid() == queue.group ? 3 : 0;
    std::vector<gid_t> groups(static_cast<std::size_t>(std::max(getgroups(0, nullptr), 0)));
    getgroups(static_cast<int>(groups.size()), groups.data());
    const bool is_member =
        shift == 0 && std::find(groups.begin(), groups.end(), queue.group) != groups.end();
    return ((queue.mode >> (is_member ? 3U : shift)) & 06U) == 06U;
}

void check_access(const Host& host, const char* name, const Queue& queue, Findings& findings) {
    const std::string object = queue_text(name, queue.key);
    if (host.is_center_alive && queue.owner != host.page_owner) {
        findings.push_back({Severity::error, "queue_owner", object,
                            "belongs to the user " + std::to_string(queue.owner) +
                                ", the center runs as user " + std::to_string(host.page_owner),
                            removal(queue) + ", then start the center before its clients"});
    } else if (queue.mode == 0) {
        findings.push_back({Severity::error, "queue_owner", object,
                            "has the mode 0000: only root can use it, since a client and not the "
                            "center made it",
                            removal(queue) + ", then start the center before its clients"});
    } else if (!may_use(queue)) {
        findings.push_back({Severity::warning, "queue_owner", object,
                            "may not be used by this user (" + std::to_string(geteuid()) +
                                "): it belongs to user " + std::to_string(queue.owner) +
                                ", group " + std::to_string(queue.group),
                            "add the user to that group, or start zav-shm-centerd with --group"});
    }
}

void check_requests(const Host& host, const Queue& queue, Findings& findings) {
    const std::string object = queue_text("request", queue.key);
    if (!host.is_center_alive && queue.messages > 0) {
        findings.push_back({Severity::warning, "queue_orphaned", object,
                            "holds " + of_bytes(queue) +
                                ", and no center takes them; the last "
                                "is of " +
                                sender_of(queue),
                            "start zav-shm-centerd"});
    } else if (queue.bytes_max < control_record_bytes) {
        findings.push_back({host.is_center_alive ? Severity::error : Severity::warning,
                            "queue_full", object,
                            "is held: it has room for " + std::to_string(queue.bytes_max) +
                                " bytes, so that all clients wait",
                            "start zav-shm-centerd again: a center that starts or ends holds it "
                            "only for a moment"});
    } else if (queue.bytes + control_record_bytes > queue.bytes_max) {
        findings.push_back({Severity::error, "queue_full", object,
                            "is full (" + of_bytes(queue) +
                                "): the center does not take requests; "
                                "the last is of " +
                                sender_of(queue),
                            "see whether the center hangs, and start it again"});
    }
}

void check_replies(const Queue& queue, Findings& findings) {
    if (queue.bytes * 2 > queue.bytes_max) {
        findings.push_back(
            {Severity::warning, "queue_full", queue_text("reply", queue.key),
             "is more than half full (" + of_bytes(queue) + "): clients do not take their replies",
             "end clients that are stopped or hang; a center throws old replies "
             "away after 5 s"});
    }
}

// A pair of queues whose keys come from another folder, or from /tmp of another container.
void check_foreign(const Queue_Keys& keys, const std::vector<Queue>& queues, Findings& findings) {
    const auto below = [](key_t key) { return static_cast<unsigned>(key) & key_below_project; };
    const auto project = [](key_t key) { return static_cast<unsigned>(key) >> 24U; };
    for (const Queue& requests : queues) {
        if (requests.key == 0 || below(requests.key) == below(keys.requests) ||
            project(requests.key) != project(keys.requests)) {
            continue;
        }
        const bool is_pair = std::any_of(queues.begin(), queues.end(), [&](const Queue& other) {
            return below(other.key) == below(requests.key) &&
                   project(other.key) == project(keys.replies);
        });
        if (is_pair) {
            findings.push_back(
                {Severity::warning, "private_tmp", queue_text("request", requests.key),
                 "comes from another /tmp than " + key_text(keys.requests) +
                     " of this process; the last to send there was " + sender_of(requests) + ", " +
                     of_bytes(requests) + " wait",
                 std::string(same_tmp) + "; what nobody uses: " + removal(requests)});
        }
    }
}

// The daemon's lock file tells its key to everybody who shares /dev/shm.
void check_key_of_center(const Host& host, const Queue_Keys& keys, Findings& findings) {
    const std::vector<key_t> locked = keys_with_a_lock();
    if (!host.is_center_alive || locked.empty() ||
        std::find(locked.begin(), locked.end(), keys.requests) != locked.end()) {
        return;
    }
    findings.push_back({Severity::error, "private_tmp", "/tmp",
                        "leads this process to the queue " + key_text(keys.requests) +
                            ", and the center to " + key_text(locked.front()) +
                            ": they do not have the same /tmp",
                        same_tmp});
}

void check_own(const Host& host, const Queue_Keys& keys, const std::vector<Queue>& queues,
               Findings& findings) {
    const auto find = [&](key_t key) {
        return std::find_if(queues.begin(), queues.end(),
                            [key](const Queue& queue) { return queue.key == key; });
    };
    for (const auto& [name, key] : {std::pair("request", keys.requests), {"reply", keys.replies}}) {
        if (const auto queue = find(key); queue != queues.end()) {
            check_access(host, name, *queue, findings);
        } else if (host.is_center_alive) {
            findings.push_back({Severity::error, "queue_missing", queue_text(name, key),
                                "does not exist in this IPC namespace although a center runs: it "
                                "was removed, or the center has another /tmp or IPC namespace",
                                "give them the same /tmp and IPC namespace (--ipc=host, "
                                "PrivateIPC=no); if ipcrm was used, start the center again"});
        }
    }
    if (const auto queue = find(keys.requests); queue != queues.end()) {
        check_requests(host, *queue, findings);
    }
    if (const auto queue = find(keys.replies); queue != queues.end()) {
        check_replies(*queue, findings);
    }
}

}  // namespace

Findings check_queues(const Host& host) {
    const auto keys = keys_of_this_process();
    if (!keys) {
        return {{Severity::error, "private_tmp", "/tmp",
                 "does not exist or cannot be looked at: the queues' keys come from it",
                 "mkdir -m 1777 /tmp"}};
    }
    const std::vector<Queue> queues = all_queues();
    Findings findings;
    check_limit("msgmax", control_record_bytes, control_record_bytes, findings);
    check_limit("msgmnb", control_record_bytes, usual_queue_bytes, findings);
    check_own(host, *keys, queues, findings);
    check_key_of_center(host, *keys, findings);
    check_foreign(*keys, queues, findings);
    if (findings.empty()) {
        findings.push_back(
            well("queues", "queues " + key_text(keys->requests) + " and " + key_text(keys->replies),
                 host.is_center_alive ? "are the center's" : "are not in the way"));
    }
    return findings;
}

}  // namespace zav_shm::doctor
