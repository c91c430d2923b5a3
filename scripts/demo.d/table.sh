# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# The live table of scripts/demo. To be sourced; uses $work, pid_of and is_running.

: "${work:?}"
declare -A frames_before=()
to_line_end=
if [[ -t 1 ]]; then
    to_line_end=$'\e[K' # what the former table left of a longer line
fi
table_second=-1
table_lines=0

state_of() {
    if [[ -n ${pid_of[$1]:-} ]]; then
        if is_running "$1"; then echo running; else echo "at its end"; fi
    elif [[ $1 == remote ]]; then
        echo 'killed (SIGKILL)'
    else
        echo 'not here yet'
    fi
}

table_row() { # <name> <what it is>
    local name=$1 frames=0 bytes=0
    if [[ -e $work/$name.index ]]; then
        frames=$(wc -l <"$work/$name.index")
    fi
    if [[ -e $work/$name.h264 ]]; then
        bytes=$(stat -c %s "$work/$name.h264")
    fi
    printf '  %-14s %-30s %4d frames %3d/s %5d KiB  %s\n' "$name" "$2" "$frames" \
        $((frames - ${frames_before[$name]:-0})) $((bytes / 1024)) "$(state_of "$name")$to_line_end"
    frames_before[$name]=$frames
}

# Once a second: over the former table on a terminal, below it elsewhere.
show_table() { # <second>
    if (($1 == table_second)); then
        return 0
    fi
    table_second=$1
    if [[ -t 1 ]] && ((table_lines > 0)); then
        printf '\e[%dA' "$table_lines"
    fi
    table_lines=10
    printf 'second %s\n' "$1$to_line_end"
    table_row camera.main 'sends 1280x720 at 30 fps'
    table_row camera.sub 'sends 640x360 at 30 fps'
    table_row recorder.main 'records the main stream'
    table_row recorder.sub 'records the sub stream'
    table_row player "main and sub, ${switch_every:?} s each"
    table_row remote "main, killed after ${kill_after:?} s"
    table_row remote.back "the same, back after ${return_after:?} s"
    table_row event "waits for an event in second ${event_at:?}"
    table_row fixed.player 'sub, by the fixed interface'
}
