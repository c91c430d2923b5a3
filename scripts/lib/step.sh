# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# step <name> <command>...   one line when the command succeeds: its time and its last line of
#                            output, and below it the tables in it if step_shows_tables is set.
#                            When it fails: its whole output, then a line that names the step; the
#                            script ends there. To be sourced.
step() {
    local name=$1 log result status=0 begin=$SECONDS
    shift
    log=$(mktemp)
    "$@" >"$log" 2>&1 </dev/null || status=$?
    if ((status == 0)); then
        result=$(tail -n 1 "$log")
        printf 'ok      %-9s %4d s%s\n' "$name" $((SECONDS - begin)) "${result:+  $result}"
        [[ -z ${step_shows_tables:-} ]] || grep '^|' "$log" || true
    else
        cat "$log"
        printf 'FAILED  %-9s %4d s  %s\n' "$name" $((SECONDS - begin)) "$*"
    fi
    rm -f "$log"
    if ((status != 0)); then
        exit 1
    fi
}
