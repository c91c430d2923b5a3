# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# What the tests' scripts are made of. They run as the first process of a PID namespace of their
# own, so that everything they start ends with them. TOOL, CENTERD and so on are programs; WORK is
# a folder that goes with the test.
#
# The scripts use the variables, and call the functions with words.
# shellcheck disable=SC2034,SC2119,SC2120
set -u
trap 'rm -rf "$WORK"' EXIT

write_configuration() { # FILE FOLDER PRODUCER CONSUMER
    cat >"$1" <<END
{"System": {"SHM_PATH": "$2"},
 "Stream": [{"index": 0, "page_size": 65536}, {"index": 1, "page_size": 16384}],
 "Distributor": [{"name": "$3", "channel": 1, "stream": [0, 1]}],
 "Receiver": [{"name": "$4", "channel": 1, "stream": [0, 1]}]}
END
}

await() { # FILE TEXT
    for _ in $(seq 600); do
        grep -q -- "$2" "$1" 2>/dev/null && return 0
        sleep 0.05
    done
    echo "no '$2' in $1" >&2
    return 1
}

start_center() { # [WORD ...]   before the program, such as "env A=B"
    write_configuration "$WORK/zav_shm.json" shm CAM_LOOP PLAYER
    "$@" "$CENTERD" --config "$WORK/zav_shm.json" >"$WORK/center" 2>&1 &
    center=$!
    await "$WORK/center" '^zav-shm-centerd '
}

start_publisher() { # [ARGUMENT ...]
    "$TOOL" publish --synthetic --name CAM_LOOP --size 1000 --history 4000000 --quiet "$@" \
        2>"$WORK/publisher" &
    publisher=$!
    for _ in $(seq 600); do
        [ -s /dev/shm/shm/rings/CAM_LOOP_0_0 ] && return 0
        sleep 0.05
    done
    return 1
}

start_reader() { # [WORD ...]   before the program
    "$@" "$TOOL" record --name PLAYER --pair CAM_LOOP -o "$WORK/out" --any-frame --quiet \
        2>"$WORK/reader" &
    reader=$!
    for _ in $(seq 600); do
        [ -s "$WORK/out" ] && return 0
        sleep 0.05
    done
    return 1
}

start_all() { start_center && start_publisher --fps 50 && start_reader; }

end_now() { # PROCESS
    kill -KILL "$1"
    wait "$1" 2>/dev/null
}

doctor() { "$TOOL" doctor --json "$@"; }
