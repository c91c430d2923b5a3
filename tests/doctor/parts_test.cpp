// SPDX-License-Identifier: Apache-2.0
//
// What cannot be made for real beside others: another kernel, another processor; and the report.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/futex.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <fstream>
#include <functional>

#include "apps/doctor/checks.h"
#include "apps/doctor/report.h"
#include "control/json_text.h"

namespace {

using namespace zav_shm::doctor;
namespace watch = zav_shm::watch;

// As on a kernel that lacks a system call of this number, when its second argument is `argument`.
// 2: there are no such filters here, as in an emulated process.
int result_without(long call, unsigned argument, unsigned error,
                   const std::function<bool()>& action) {
    const pid_t child = fork();
    if (child == 0) {
        sock_filter filter[] = {
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(call), 0, 3),
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args) + sizeof(__u64)),
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, argument, 0, 1),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        };
        const sock_fprog program{std::size(filter), filter};
        if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
            prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
            _exit(2);
        }
        _exit(action() ? 0 : 1);
    }
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool kernel_check_tells(const char* check) {
    for (const Finding& finding : check_kernel(Host())) {
        if (finding.check == check && finding.severity != Severity::ok && !finding.remedy.empty()) {
            return true;
        }
    }
    return false;
}

#ifdef SYS_futex_time64
constexpr long futex_call = SYS_futex_time64;
#else
constexpr long futex_call = SYS_futex;
#endif
#ifdef SYS_fcntl64
constexpr long fcntl_call = SYS_fcntl64;
#else
constexpr long fcntl_call = SYS_fcntl;
#endif

TEST(Doctor_Kernel, that_has_all_calls_is_well) { EXPECT_FALSE(has_trouble(check_kernel(Host()))); }

TEST(Doctor_Kernel, without_the_futex_call_is_told) {
    const int result =
        result_without(futex_call, FUTEX_WAIT, ENOSYS, [] { return kernel_check_tells("futex"); });
    if (result == 2) {
        GTEST_SKIP() << "no filters of system calls";
    }
    EXPECT_EQ(result, 0);
}

TEST(Doctor_Kernel, without_locks_of_open_files_is_told) {
    const int result = result_without(fcntl_call, F_OFD_GETLK, EINVAL,
                                      [] { return kernel_check_tells("ofd_locks"); });
    if (result == 2) {
        GTEST_SKIP() << "no filters of system calls";
    }
    EXPECT_EQ(result, 0);
}

TEST(Doctor_Clock, that_nobody_keeps_is_a_note) {
    timex told{};
    EXPECT_EQ(clock_keeping(TIME_OK, told).severity, Severity::ok);
    EXPECT_EQ(clock_keeping(TIME_ERROR, told).severity, Severity::note);
    told.status = STA_UNSYNC;
    EXPECT_EQ(clock_keeping(TIME_OK, told).severity, Severity::note);
}

TEST(Doctor_Processes, of_another_word_size_are_told) {
    const std::string path = testing::TempDir() + "zav_doctor_program";
    std::ofstream(path, std::ios::binary) << "\177ELF\1";
    EXPECT_EQ(bits_of_program(path), 32);
    std::ofstream(path, std::ios::binary) << "\177ELF\2";
    EXPECT_EQ(bits_of_program(path), 64);
    std::ofstream(path, std::ios::binary) << "#!/bin/sh";
    EXPECT_FALSE(bits_of_program(path));
    std::remove(path.c_str());
    Host host;
    host.self = facts_of(getpid()).value();
    host.participants.push_back({"reader A of B/0/0", getpid(), host.self});
    EXPECT_FALSE(has_trouble(check_processes(host)));
    host.participants.front().facts->bits = *host.self.bits == 64 ? 32 : 64;
    const Findings findings = check_processes(host);
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings.front().check, "word_size");
    EXPECT_EQ(findings.front().severity, Severity::note);
}

TEST(Doctor_Streams, of_the_fixed_interface_without_frames_are_told) {
    Host host;
    watch::Stream stream;
    stream.id = {"CAM_LOOP", 0, 0};
    stream.state = watch::Stream::State::slot;
    stream.rates = watch::Stream::Rates{25, 0};
    stream.consumers.resize(1);
    host.snapshot.streams = {stream};
    EXPECT_FALSE(has_trouble(check_streams(host)));
    host.snapshot.streams.front().rates->frames = 0;
    EXPECT_EQ(check_streams(host).front().check, "silent_producer");
    EXPECT_EQ(check_streams(host).front().object, "producer of CAM_LOOP/0/0");
}

TEST(Doctor_Streams, whose_readers_lose_frames_are_told_with_the_cause) {
    Host host;
    watch::Consumer reader;
    reader.name = "PLAYER";
    reader.of = {"CAM_LOOP", 0, 0};
    reader.rates = watch::Consumer::Rates{};
    reader.rates->overtaken = 2.5;
    host.snapshot.elsewhere = {reader};
    const Finding finding = check_streams(host).front();
    EXPECT_EQ(finding.check, "reader_loses_frames");
    EXPECT_NE(finding.seen.find("overtaken 2.5"), std::string::npos);
    EXPECT_NE(finding.remedy.find("history_bytes"), std::string::npos);
}

TEST(Doctor_Report, has_the_worst_first_and_hides_what_is_well) {
    const Findings findings = {well("a", "A", "runs"),
                               {Severity::note, "b", "B", "is so", ""},
                               {Severity::error, "c", "C\n\x1b[2J", "fails", "mend it"}};
    EXPECT_EQ(text_of(findings, false),
              "error: C\\x0a\\x1b[2J: fails; remedy: mend it\n"
              "note: B: is so\n"
              "1 errors, 0 warnings, 1 notes, 1 well\n");
    EXPECT_NE(text_of(findings, true).find("ok: A: runs\n"), std::string::npos);
    const Json::Value report = zav_shm::parsed_json(json_of(findings, 6));
    EXPECT_EQ(report["checks"].size(), 3U);
    EXPECT_EQ(report["checks"][2]["object"], "C\n\x1b[2J");
    EXPECT_EQ(report["counts"]["error"].asInt(), 1);
    EXPECT_EQ(report["exit_status"].asInt(), 6);
}

TEST(Doctor_Report, ends_with_the_status_of_the_worst) {
    const auto status = [](Severity severity, const char* check) {
        return exit_status_of({well("a", "A", ""), {severity, check, "", "", ""}});
    };
    EXPECT_EQ(status(Severity::note, "x"), 0);
    EXPECT_EQ(status(Severity::warning, "x"), 1);
    EXPECT_EQ(status(Severity::error, "center"), 3);
    EXPECT_EQ(status(Severity::error, "center_hangs"), 3);
    EXPECT_EQ(status(Severity::error, "shm_room"), 6);
}

}  // namespace
