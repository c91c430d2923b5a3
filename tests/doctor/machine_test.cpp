// SPDX-License-Identifier: Apache-2.0
//
// Each trouble is made for real, and has to be told by name and with its remedy.
#include "trouble_machine.h"

namespace {

// ---- all is well ----

TEST_F(Trouble_Machine, without_trouble_has_neither_warnings_nor_errors) {
    run("start_all && sleep 1; doctor");
    EXPECT_EQ(status, 0) << output;
    EXPECT_EQ(count("warning") + count("error"), 0) << output;
    for (const char* check : {"shm_mount", "center", "queues", "processes", "leftovers", "streams",
                              "clock_step", "futex", "ofd_locks"}) {
        EXPECT_TRUE(has(check, "ok")) << check << output;
    }
}

TEST_F(Trouble_Machine, is_left_as_it_was) {
    run("start_center; kill -STOP $center\n"
        "look() { find /dev/shm -printf '%p %i %s %m %T@\\n' | sort; ipcs -q; }\n"
        "look >$WORK/before; doctor >/dev/null; look >$WORK/after\n"
        "cmp $WORK/before $WORK/after && echo same; doctor");
    EXPECT_EQ(output.rfind("same\n", 0), 0U) << output;
}

// ---- /dev/shm ----

TEST_F(Trouble_Machine, with_a_read_only_folder) {
    run("mount -o remount,ro /dev/shm; doctor");
    EXPECT_EQ(status, 6);
    sees("error", "shm_mount", "/dev/shm", "read-only", "mount -o remount,rw /dev/shm");
}

TEST_F(Trouble_Machine, without_a_tmpfs) {
    run("mount -t proc proc /dev/shm; doctor");
    sees("error", "shm_mount", "/dev/shm", "no tmpfs", "mount -t tmpfs");
}

TEST_F(Trouble_Machine, with_a_folder_of_another_mode) {
    run("chmod 0750 /dev/shm; doctor");
    sees("warning", "shm_mode", "/dev/shm", "0750 instead of 1777", "chmod 1777 /dev/shm");
}

TEST_F(Trouble_Machine, that_is_full) {
    run("mount -o remount,size=1m /dev/shm; head -c 1048576 /dev/zero >/dev/shm/big; doctor");
    sees("error", "shm_room", "/dev/shm", "is full: 0 of 1048576 bytes", "remount,size=");
}

TEST_F(Trouble_Machine, without_files_left) {
    run("mount -o remount,nr_inodes=100 /dev/shm\n"
        "for i in $(seq 97); do : >/dev/shm/$i; done; doctor");
    sees("warning", "shm_room", "/dev/shm", "of 100 files (inodes)", "nr_inodes=");
}

TEST_F(Trouble_Machine, with_less_room_than_a_configuration_needs) {
    run("write_configuration $WORK/c.json shm CAM_LOOP PLAYER\n"
        "mount -o remount,size=64k /dev/shm; doctor --config $WORK/c.json");
    sees("error", "shm_room", "/dev/shm", "are needed to start a center", "remount,size=BYTES");
}

TEST_F(Trouble_Machine, with_less_room_than_the_centers_clients_need) {
    run("start_center; mount -o remount,size=300k /dev/shm; doctor");
    EXPECT_EQ(status, 1);
    sees("warning", "shm_room", "/dev/shm", "when all publishers and subscribers come", "size=");
}

// ---- the center ----

TEST_F(Trouble_Machine, without_a_center) {
    run("doctor");
    EXPECT_EQ(status, 3);
    sees("error", "center", "center of /dev/shm/shm", "does not run", "start zav-shm-centerd");
}

TEST_F(Trouble_Machine, whose_center_was_killed) {
    run("start_center; end_now $center; $TOOL query --type Receiver --name PLAYER --wait 0.2\n"
        "doctor");
    EXPECT_EQ(status, 3);
    sees("error", "center", "center of /dev/shm/shm", "was killed", "start zav-shm-centerd");
    sees("note", "stale_lock", "/dev/shm/shm/center_lock", "held by no process", "rm ");
    sees("note", "stale_lock", "/dev/shm/zav_shm_queues_0x", "held by no process", "rm ");
    sees("note", "stale_segment", "/dev/shm/shm", "holds 2 segments", "--clean");
    sees("note", "stale_semaphore", "/dev/shm", "semaphores of channels", "--clean");
}

TEST_F(Trouble_Machine, with_requests_that_nobody_takes) {
    run("start_center; end_now $center; $QUEUE_MAKER 5120 600 0 1; doctor");
    sees("warning", "queue_orphaned", "request queue 0x", "1 messages", "start zav-shm-centerd");
}

TEST_F(Trouble_Machine, whose_center_is_stopped) {
    run("start_center; kill -STOP $center; doctor");
    EXPECT_EQ(status, 3);
    sees("error", "center_hangs", "(zav-shm-centerd)", "is stopped", "kill -CONT ");
}

TEST_F(Trouble_Machine, whose_center_hangs) {
    run("$FALSE_CENTER shm 0.0.1 16 10 >$WORK/false & await $WORK/false ready; doctor");
    sees("error", "center_hangs", "center, process", "old, the limit is 3 s", "start it again");
}

TEST_F(Trouble_Machine, whose_center_has_another_version_and_word_size) {
    run("$FALSE_CENTER shm 0.0.1 12 0 >$WORK/false & await $WORK/false ready; doctor");
    sees("warning", "version", "center, process", "the version 0.0.1", "the same version");
    sees("note", "word_size", "center, process", "semaphores of 12 bytes", "same word size");
}

TEST_F(Trouble_Machine, with_two_centers) {
    run("start_center; write_configuration $WORK/two.json second CAM_TWO OTHER\n"
        "unshare --mount sh -c 'mount -t tmpfs tmpfs /tmp && exec \"$@\"' sh \\\n"
        "    $CENTERD --config $WORK/two.json >$WORK/two 2>&1 &\n"
        "await $WORK/two '^zav-shm-centerd '; doctor");
    sees("error", "two_centers", "center of /dev/shm/second", "runs beside that of /dev/shm/shm",
         "end one of them");
}

// ---- queues ----

TEST_F(Trouble_Machine, with_a_queue_that_a_client_made) {
    run("$QUEUE_MAKER 5120 0 0 0; $QUEUE_MAKER 5121 0 0 0; doctor");
    sees("error", "queue_owner", "request queue 0x", "the mode 0000", "ipcrm -q ");
    sees("error", "queue_owner", "reply queue 0x", "the mode 0000", "ipcrm -q ");
}

TEST_F(Trouble_Machine, with_a_queue_of_another_owner) {
    run("start_center; $QUEUE_MAKER 5121 600 65534 0; doctor");
    EXPECT_EQ(status, 6);
    sees("error", "queue_owner", "reply queue 0x", "belongs to the user 65534", "ipcrm -q ");
}

TEST_F(Trouble_Machine, with_full_queues) {
    run("start_center; kill -STOP $center; sleep 1\n"
        "$QUEUE_MAKER 5120 600 0 99; $QUEUE_MAKER 5121 600 0 10; doctor");
    sees("error", "queue_full", "request queue 0x", "is full", "start it again");
    sees("warning", "queue_full", "reply queue 0x", "10 messages", "end clients");
}

TEST_F(Trouble_Machine, with_narrow_limits_on_queues) {
    run("echo 512 >/proc/sys/kernel/msgmax; echo 4096 >/proc/sys/kernel/msgmnb; doctor");
    sees("error", "queue_limits", "kernel.msgmax", "is 512 bytes, 1028", "msgmax=1028");
    sees("warning", "queue_limits", "kernel.msgmnb", "is 4096 bytes, 16384", "msgmnb=16384");
}

// ---- /tmp and namespaces ----

TEST_F(Trouble_Machine, with_another_ipc_namespace) {
    run("start_center; unshare --ipc \"$TOOL\" doctor --json");
    sees("error", "queue_missing", "request queue 0x", "does not exist", "--ipc=host");
}

TEST_F(Trouble_Machine, with_a_reader_in_another_ipc_namespace) {
    run("start_center; start_publisher --fps 50\n"
        "unshare --ipc $TOOL record --tap --pair CAM_LOOP -o /dev/null --quiet 2>/dev/null &\n"
        "sleep 1; doctor");
    sees("error", "ipc_namespace", "reader (tap) of CAM_LOOP/0/0", "is in ipc:[", "--ipc=host");
}

TEST_F(Trouble_Machine, with_a_private_tmp_of_its_own) {
    run("start_center; unshare --mount sh -c 'mount -t tmpfs tmpfs /tmp && exec \"$@\"' sh \\\n"
        "    $TOOL doctor --json");
    sees("error", "private_tmp", "/tmp", "do not have the same /tmp", "PrivateTmp=no");
    sees("error", "private_tmp", "this program", "another /tmp than the center", "/tmp:/tmp");
}

TEST_F(Trouble_Machine, with_clients_of_a_private_tmp) {
    run("start_center; start_publisher --fps 50\n"
        "unshare --mount sh -c 'mount -t tmpfs tmpfs /tmp && $0 5120 600 0 2; $0 5121 600 0 0\n"
        "    exec $1 record --tap --pair CAM_LOOP -o /dev/null --quiet' \\\n"
        "    $QUEUE_MAKER $TOOL 2>/dev/null &\n"
        "sleep 1; doctor");
    sees("error", "private_tmp", "reader (tap) of CAM_LOOP/0/0", "another /tmp", "PrivateTmp=no");
    sees("warning", "private_tmp", "request queue 0x", "2 messages wait", "ipcrm -q ");
}

TEST_F(Trouble_Machine, with_a_reader_in_another_time_namespace) {
    run("start_all; unshare --time --monotonic 1000 --boottime 1000 --fork \\\n"
        "    $TOOL record --tap --pair CAM_LOOP -o /dev/null --quiet 2>/dev/null &\n"
        "sleep 2; doctor");
    sees("warning", "time_namespace", "reader (tap)", "is in time:[", "unshare --time");
}

TEST_F(Trouble_Machine, with_a_reader_in_another_process_namespace) {
    run("start_center; start_publisher --fps 50\n"
        "start_reader unshare --pid --fork --mount-proc; doctor");
    sees("warning", "pid_namespace", "reader PLAYER of CAM_LOOP/0/0", "another PID namespace",
         "--pid=host");
}

TEST_F(Trouble_Machine, whose_center_is_not_visible) {
    run("start_center; unshare --pid --fork --mount-proc \"$TOOL\" doctor --json");
    sees("warning", "pid_namespace", "center, process", "no process of this id", "--pid=host");
}

TEST_F(Trouble_Machine, with_a_user_who_may_lock_little) {
    run("start_center; chmod 755 $WORK /dev/shm/shm; chmod 644 /dev/shm/shm/center_page\n"
        "prlimit --memlock=4096:4096 setpriv --reuid 65534 --clear-groups \"$TOOL\" doctor --json "
        "\\\n"
        "    --config $WORK/zav_shm.json");
    sees("warning", "memlock", "this program", "may lock 4096 bytes", "LimitMEMLOCK=");
    sees("warning", "queue_owner", "request queue 0x", "may not be used by this user", "--group");
    sees("note", "rights", "center, process", "are not shown", "run zav-shm doctor as root");
}

// ---- leftovers ----

TEST_F(Trouble_Machine, with_the_history_of_a_killed_publisher) {
    run("start_center; start_publisher --fps 50; sleep 0.5; end_now $publisher; doctor");
    sees("warning", "stale_ring", "history of CAM_LOOP/0/0", "was killed", "CAM_LOOP_0_0'");
}

TEST_F(Trouble_Machine, with_the_card_of_a_killed_reader) {
    run("start_all; end_now $center; end_now $reader; doctor");
    sees("warning", "stale_card", ".reader", "its reader PLAYER of CAM_LOOP/0/0", ".reader'");
}

TEST_F(Trouble_Machine, with_a_segment_and_a_semaphore_of_nobody) {
    run("start_center; head -c 5000 /dev/zero >/dev/shm/shm/OLD_0_0\n"
        "touch -d '5 minutes ago' /dev/shm/sem.aB3dE9; doctor");
    EXPECT_EQ(status, 1);
    sees("warning", "stale_segment", "/dev/shm/shm/OLD_0_0", "takes 5000 bytes", "rm ");
    sees("warning", "stale_semaphore", "/dev/shm/sem.aB3dE9", "was just making", "rm ");
}

// ---- streams ----

TEST_F(Trouble_Machine, with_a_silent_producer) {
    run("start_center; start_publisher --fps 1/60; sleep 1; doctor --silence 1");
    EXPECT_EQ(status, 1);
    sees("warning", "silent_producer", "publisher of CAM_LOOP/0/0, process",
         "has published nothing for", "its camera");
}

TEST_F(Trouble_Machine, with_stopped_processes) {
    run("start_all; kill -STOP $reader; sleep 1; kill -STOP $publisher; doctor");
    sees("warning", "silent_producer", "publisher of CAM_LOOP/0/0", "is stopped", "kill -CONT ");
    sees("warning", "reader_does_not_read", "reader PLAYER of CAM_LOOP/0/0", "is stopped",
         "kill -CONT ");
}

TEST_F(Trouble_Machine, with_a_reader_that_does_not_read) {
    run("start_center; start_publisher --fps 50; mkfifo $WORK/pipe; sleep 100 <>$WORK/pipe &\n"
        "$TOOL record --name PLAYER --pair CAM_LOOP -o $WORK/pipe --any-frame --quiet \\\n"
        "    2>/dev/null & sleep 4; doctor");
    sees("warning", "reader_does_not_read", "reader PLAYER of CAM_LOOP/0/0",
         "has taken no frame for", "see what it does");
}

// ---- clocks ----

TEST_F(Trouble_Machine, whose_clock_was_set_since_the_center_started) {
    run("echo -3600 >$WORK/ahead\n"
        "start_center env CLOCK_SHIM_AHEAD=$WORK/ahead LD_PRELOAD=$CLOCK_SHIM \\\n"
        "    ASAN_OPTIONS=verify_asan_link_order=0; doctor");
    sees("warning", "clock_step", "wall clock", "was set forward by 3", "slew");
}

TEST_F(Trouble_Machine, whose_clock_is_set_meanwhile) {
    run("echo 0 >$WORK/ahead; (sleep 0.7; echo 3600 >$WORK/ahead) &\n"
        "CLOCK_SHIM_AHEAD=$WORK/ahead LD_PRELOAD=$CLOCK_SHIM \\\n"
        "    ASAN_OPTIONS=verify_asan_link_order=0 $TOOL doctor --json");
    sees("warning", "clock_step", "wall clock", "was set by 3", "slew");
}

}  // namespace
