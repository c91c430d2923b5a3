# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# The verdicts of scripts/demo. To be sourced; uses $work.
#
# An index has a line "stream sequence bytes key" for each frame that a camera offered, or a consumer
# wrote. A camera's frames are those of the source file in its order: the sum of the bytes before a
# frame is its place there.

: "${work:?}"
sources=(samples/main.h264 samples/sub.h264)
cameras=(camera.main camera.sub)

# Prints which stretches of the source files an index names: "stream offset bytes". Fails, and says
# why, when a frame has not the length that was sent, and but for a consumer that may miss some, when
# one is missing, or a stretch does not begin with a key frame.
stretches_of() { # <consumer's index> complete|killed|some
    awk -v may_miss="$([[ $2 == some ]] && echo 1)" '
        function refuse(why) { print why >"/dev/stderr"; refused = 1; exit 1 }
        FNR == 1 { file++ }
        file <= 2 {
            place[$1, $2] = total[$1] + 0
            length_of[$1, $2] = $3
            total[$1] += $3
            next
        }
        length_of[$1, $2] != $3 { refuse("frame " $2 " of stream " $1 " was sent otherwise") }
        FNR > 1 && $1 == stream && ($2 <= sequence || ($2 != sequence + 1 && !may_miss)) {
            refuse("after frame " sequence " came frame " $2)
        }
        FNR == 1 || $1 != stream || $2 != sequence + 1 {
            if ($4 == 0 && !may_miss) refuse("the first one, frame " $2 ", is no key frame")
            if (FNR > 1) print stream, begin, bytes
            stream = $1
            begin = place[$1, $2]
            bytes = 0
        }
        { sequence = $2; bytes += $3 }
        END { if (!refused && bytes > 0) print stream, begin, bytes }
    ' "$work/${cameras[0]}.index" "$work/${cameras[1]}.index" "$1"
}

piece() { # <source> <offset> <bytes>
    tail -c "+$(($2 + 1))" "$1" | head -c "$3"
}

# What a file of stretches says, cut out of the sources.
expected() { # <stretches>
    local stream offset bytes
    while read -r stream offset bytes; do
        piece "${sources[stream]}" "$offset" "$bytes"
    done <"$1"
}

# From the first frame on, as much as was written: one that was killed may have written more than its
# index names.
expected_of_killed() { # <stretches> <bytes>
    local stream offset
    read -r stream offset _ <"$1"
    piece "${sources[stream]}" "$offset" "$2"
}

sum_of() { sha256sum | cut -c 1-16; }

# What a consumer that ended in order says of itself.
lost_nothing() { # <consumer>
    tail -n 1 "$work/$1.log" | grep -q ' lost=0 dropped=0 torn=0 '
}

# "some" is the fixed interface. It has no history and no check: on a machine that stands still for
# 20 ms a consumer may miss pictures, or get one torn or twice, which is told and no failure.
judge() { # <consumer> complete|killed|some
    local name=$1 frames bytes theirs ours verdict='nothing lost, nothing torn: OK'
    local stretches=$work/$name.stretches
    frames=$(wc -l <"$work/$name.index")
    bytes=$(stat -c %s "$work/$name.h264")
    theirs=$(sum_of <"$work/$name.h264")
    ours=none
    if ! stretches_of "$work/$name.index" "$2" >"$stretches"; then
        verdict='FAILED: frames are missing'
    elif [[ $2 == killed ]]; then
        ours=$(expected_of_killed "$stretches" "$bytes" | sum_of)
    else
        ours=$(expected "$stretches" | sum_of)
        [[ $2 == some ]] || lost_nothing "$name" || verdict='FAILED: it counted losses'
    fi
    if [[ $verdict == *OK ]] && { [[ $ours != "$theirs" ]] || ((bytes == 0)); }; then
        verdict='FAILED: differs from the source'
    fi
    if [[ $2 == some && $verdict == *OK ]]; then
        verdict='each picture whole and in order: OK'
    elif [[ $2 == some ]] && ((frames >= 100)); then
        verdict='not each whole and in order, as a slot is read too late: OK'
    fi
    printf '  %-14s %4d frames %8d bytes, sha256 %s, source %s, %s\n' \
        "$name" "$frames" "$bytes" "$theirs" "$ours" "$verdict"
    [[ $verdict == *OK ]]
}

# An event's file holds all from so long before it until so long after it, but for the time from its
# last picture to the next. The last two columns of its index are the presentation time and UTC.
judge_times() { # <UTC of the event, ns> <seconds before> <seconds after>
    awk -v event="$1" -v before="$2" -v after="$3" '
        NR == 1 { begin = $7 }
        { end = $7 }
        END {
            ahead = (event - begin) / 1e9
            behind = (end - event) / 1e9
            printf "  %-14s from %.2f s before it to %.2f s after it; asked for %d and %d: ", "event",
                ahead, behind, before, after
            is_right = NR > 0 && ahead >= before && behind + 0.5 > after
            print is_right ? "OK" : "FAILED"
            exit !is_right
        }
    ' "$work/event.index"
}

# Pictures of the producer of the fixed interface, which are text.
judge_text() { # <file>
    awk '
        $1 != "picture" || $4 != line % 20 + 1 || (line % 20 && $2 != number) ||
            (line % 20 == 0 && $2 <= number) { wrong++ }
        { line++; number = $2 }
        END {
            is_right = line >= 1000 && line % 20 == 0
            printf "  %-14s %4d pictures of a producer of the fixed interface, %s\n",
                "fixed.recorder", line / 20, !is_right ? "FAILED" : !wrong ? \
                "each whole and in order: OK" : "not each whole, as a slot is read too late: OK"
            exit !is_right
        }
    ' "$1"
}

# The center was told to clean up; its lock files stay on purpose.
judge_nothing_left() {
    local left
    left=$(find /dev/shm -mindepth 1 ! -name '*lock*' -printf '%P ')
    left+=$(tail -n +2 /proc/sysvipc/msg)
    if [[ -n $left ]]; then
        printf '  left behind: %s\n' "$left"
        return 1
    fi
}
