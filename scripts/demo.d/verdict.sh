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
# why, when a frame is missing, has not the length that was sent, or a stretch does not begin with
# a key frame.
stretches_of() { # <consumer's index>
    awk '
        function refuse(why) { print why >"/dev/stderr"; refused = 1; exit 1 }
        FNR == 1 { file++ }
        file <= 2 {
            place[$1, $2] = total[$1] + 0
            length_of[$1, $2] = $3
            total[$1] += $3
            next
        }
        length_of[$1, $2] != $3 { refuse("frame " $2 " of stream " $1 " was sent otherwise") }
        FNR > 1 && $1 == stream && $2 != sequence + 1 {
            refuse("after frame " sequence " came frame " $2)
        }
        FNR == 1 || $1 != stream {
            if ($4 == 0) refuse("the first one, frame " $2 ", is no key frame")
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

judge() { # <consumer> complete|killed
    local name=$1 frames bytes theirs ours verdict='nothing lost, nothing torn: OK'
    local stretches=$work/$name.stretches
    frames=$(wc -l <"$work/$name.index")
    bytes=$(stat -c %s "$work/$name.h264")
    theirs=$(sum_of <"$work/$name.h264")
    ours=none
    if ! stretches_of "$work/$name.index" >"$stretches"; then
        verdict='FAILED: frames are missing'
    elif [[ $2 == killed ]]; then
        ours=$(expected_of_killed "$stretches" "$bytes" | sum_of)
    else
        ours=$(expected "$stretches" | sum_of)
        lost_nothing "$name" || verdict='FAILED: it counted losses'
    fi
    if [[ $verdict == *OK ]] && { [[ $ours != "$theirs" ]] || ((bytes == 0)); }; then
        verdict='FAILED: differs from the source'
    fi
    printf '  %-14s %4d frames %8d bytes, sha256 %s, source %s, %s\n' \
        "$name" "$frames" "$bytes" "$theirs" "$ours" "$verdict"
    [[ $verdict == *OK ]]
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
