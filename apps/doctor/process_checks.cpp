// SPDX-License-Identifier: Apache-2.0
//
// Whether center and clients live in the same world: /tmp, /dev/shm, namespaces, word size; and
// what they may lock into memory.
#include <semaphore.h>

#include <algorithm>

#include "apps/doctor/checks.h"

namespace zav_shm::doctor {

namespace {

using Severity::error;
using Severity::note;
using Severity::warning;

// The center is what all others have to agree with; without one, this process.
struct Reference {
    std::string text;
    const Process_Facts& facts;
};

Reference reference_of(const Host& host) {
    const auto center = std::find_if(
        host.participants.begin(), host.participants.end(), [](const Participant& one) {
            return one.role == "center" && one.facts && one.facts->is_known();
        });
    return center != host.participants.end() ? Reference{"the center", *center->facts}
                                             : Reference{"this process", host.self};
}

void check_folders(const Participant& one, const Reference& reference, Findings& findings) {
    const Process_Facts& facts = *one.facts;
    if (facts.tmp && reference.facts.tmp && facts.tmp != reference.facts.tmp) {
        findings.push_back({error, "private_tmp", one.text(),
                            "has another /tmp than " + reference.text +
                                ", and so other control queues: it can never register",
                            "give it the same /tmp (PrivateTmp=no, the container's -v "
                            "/tmp:/tmp), and start it again"});
    }
    if (facts.shm && reference.facts.shm && facts.shm != reference.facts.shm) {
        findings.push_back({error, "private_shm", one.text(),
                            "has another /dev/shm than " + reference.text,
                            "give it the same /dev/shm (the container's -v /dev/shm:/dev/shm), "
                            "and start it again"});
    }
}

void check_namespaces(const Participant& one, const Reference& reference, Findings& findings) {
    const Process_Facts& facts = *one.facts;
    const auto differs = [](const std::string& a, const std::string& b) {
        return !a.empty() && !b.empty() && a != b;
    };
    if (differs(facts.ipc_namespace, reference.facts.ipc_namespace)) {
        findings.push_back({error, "ipc_namespace", one.text(),
                            "is in " + facts.ipc_namespace + ", and " + reference.text + " in " +
                                reference.facts.ipc_namespace +
                                ": they do not share the control queues",
                            "start it with --ipc=host, or without PrivateIPC="});
    }
    if (differs(facts.time_namespace, reference.facts.time_namespace)) {
        findings.push_back({warning, "time_namespace", one.text(),
                            "is in " + facts.time_namespace + ", and " + reference.text + " in " +
                                reference.facts.time_namespace +
                                ": ages and latencies of its frames are wrong",
                            "start it without a time namespace (unshare --time)"});
    }
    if (facts.has_own_pid_namespace) {
        findings.push_back({warning, "pid_namespace", one.text(),
                            "is the process " + std::to_string(facts.pid) +
                                " here, in another PID namespace: two clients with the same id "
                                "take each other's replies",
                            "start it with --pid=host, or see to it that ids differ"});
    }
}

void check_word_size(const Host& host, const Participant& one, const Reference& reference,
                     Findings& findings) {
    const auto bits = one.facts->bits;
    if (bits && reference.facts.bits && bits != reference.facts.bits) {
        findings.push_back({note, "word_size", one.text(),
                            "is a program of " + std::to_string(*bits) + " bits, and " +
                                reference.text + " one of " + std::to_string(*reference.facts.bits),
                            "histories can be shared; the fixed interface cannot: use publishers "
                            "and subscribers, and look that none is in a relay (zav-shm status)"});
    }
    if (one.role == "center" && host.page && host.page->semaphore_bytes != sizeof(sem_t) &&
        (!bits || !host.self.bits || bits == host.self.bits)) {
        findings.push_back({note, "word_size", one.text(),
                            "has semaphores of " + std::to_string(host.page->semaphore_bytes) +
                                " bytes, this program of " + std::to_string(sizeof(sem_t)),
                            "histories can be shared; the fixed interface cannot: build clients "
                            "of it for the same word size"});
    }
}

void check_memlock(const Host& host, const Participant& one, Findings& findings) {
    const std::uint64_t needed = host.greatest_segment();
    const auto limit = one.facts->memlock_bytes;
    if (one.facts->uid != 0 && limit && *limit < needed) {
        findings.push_back({warning, "memlock", one.text(),
                            "may lock " + std::to_string(*limit) +
                                " bytes (RLIMIT_MEMLOCK), the greatest segment has " +
                                std::to_string(needed) + ": it may be swapped out",
                            "raise the limit (LimitMEMLOCK=infinity, ulimit -l unlimited)"});
    }
}

void check_sight(const Host& host, Findings& findings) {
    std::size_t hidden = 0;
    std::string example;
    for (const Participant& one : host.participants) {
        if (one.facts && !one.facts->is_known()) {
            ++hidden;
            example = one.text();
        }
    }
    if (hidden > 0) {
        findings.push_back({note, "rights", example,
                            "and " + std::to_string(hidden - 1) +
                                " others: /tmp, namespaces and word size are not shown to the user "
                                "of this program",
                            "run zav-shm doctor as root"});
    }
}

}  // namespace

Findings check_processes(const Host& host) {
    Findings findings;
    const Reference reference = reference_of(host);
    const Participant self{"this program", host.self.pid, host.self};
    for (const Participant& one : host.participants) {
        if (!one.facts) {
            findings.push_back({warning, "pid_namespace", one.text(),
                                "lives, and no process of this id is seen here: it is in a PID "
                                "namespace that is not visible, or /proc hides it",
                                "start it with --pid=host, or run zav-shm doctor outside of the "
                                "container"});
            continue;
        }
        check_folders(one, reference, findings);
        check_namespaces(one, reference, findings);
        check_word_size(host, one, reference, findings);
        check_memlock(host, one, findings);
    }
    check_folders(self, reference, findings);
    check_memlock(host, self, findings);
    check_sight(host, findings);
    if (findings.empty()) {
        findings.push_back(well("processes",
                                std::to_string(host.participants.size()) + " processes",
                                "share /tmp, /dev/shm and namespaces"));
    }
    return findings;
}

}  // namespace zav_shm::doctor
