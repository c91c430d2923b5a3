# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# Building and testing one preset of CMakePresets.json in build/<preset>. To be sourced; works in
# the top folder of the tree.

# build_preset <preset> [target]...
#
# Under ThreadSanitizer nothing that run_ctest leaves out there.
build_preset() {
    local preset=$1
    shift
    if [[ $preset == tsan && $# == 0 ]]; then
        set -- tests_but_system
    fi
    cmake --preset "$preset" && cmake --build --preset "$preset" ${1:+--target "$@"}
}

# What the short form of scripts/test builds: the layers without the daemon and the tool, whose
# programs take as long to build as all these.
# shellcheck disable=SC2034  # used by the scripts that source this file
short_targets=(unit_tests ring_unit_tests frame_unit_tests ipc_tests ring_tests frame_tests c_tests system_tests)

# And what it leaves out: the programs that were not built, and of the tests with processes of
# their own all but one with frames.
short_left_out='_NOT_BUILT$|^(Consumers/At_Full_Rate|Disturbed)\.|At_Thirty_Per_Second\..*/[12]$'
short_left_out+='|^(fuzz|install)\.'

# left_out_on <preset>   regular expressions of the tests that tests/left_out.<preset> names
left_out_on() {
    local list=tests/left_out.$1
    if [[ -f $list ]]; then
        sed -nE 's/^([^# ]+) .*/\1/p' "$list"
    fi
}

# What the sanitizers need at run time; a developer's own settings win.
#
# AddressSanitizer's checks of string arguments and of globals' initialisation order are off by
# default and cost little here.
export_sanitizer_options() {
    export ASAN_OPTIONS="${ASAN_OPTIONS-strict_string_checks=1:check_initialization_order=1}"
    export UBSAN_OPTIONS="${UBSAN_OPTIONS-print_stacktrace=1}"
    export TSAN_OPTIONS="${TSAN_OPTIONS-halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/tests/thread_sanitizer.supp}"
}

# Runs a command without address-space randomisation where that is allowed: kernels that randomise
# more than 28 bits place mappings where ThreadSanitizer of these compilers refuses to start.
without_randomised_addresses() {
    if setarch --addr-no-randomize true 2>/dev/null; then
        setarch --addr-no-randomize "$@"
    else
        "$@"
    fi
}

# run_ctest <preset> <junit file> <left out> [ctest option]...
#
# Leaves out the tests that the regular expression matches, if it is not empty, and those that
# left_out_on names.
#
# No system tests under ThreadSanitizer: it sees nothing that passes between processes, and
# slows them beyond the times that they are about. Under AddressSanitizer those that are about
# rates are left out; the other system tests run the same programs.
run_ctest() {
    local preset=$1 junit=$2 names runner=() left_out=()
    names=$(left_out_on "$preset" && printf '%s' "$3") || return 1
    shift 3
    if [[ $preset == tsan ]]; then
        runner=(without_randomised_addresses)
        left_out=(--label-exclude '^system$')
        names+=$'\n_NOT_BUILT$'
    elif [[ $preset == asan ]]; then
        names+=$'\n^(Consumers/|Disturbed\.|Client_Exchange\.|Frames_Through_Center\.)'
    fi
    names=$(sed '/^$/d' <<<"$names" | paste -sd '|')
    if [[ -n $names ]]; then
        left_out+=(--exclude-regex "$names")
    fi
    export_sanitizer_options
    rm -f "$junit"
    # Six times as many as there are processors: tests/CMakeLists.txt lets most tests count six.
    "${runner[@]}" ctest --test-dir "build/$preset" -j"$((6 * $(nproc)))" --output-on-failure \
        --no-tests=error --output-junit "$junit" "${left_out[@]}" "$@" | without_passed_tests
}

# On a terminal every test is seen as it runs; in a log only what did not pass is of use.
without_passed_tests() {
    if [[ -t 1 ]]; then
        cat
    else
        grep --line-buffered -vE '^ +Start +[0-9]+: |^ *[0-9]+/[0-9]+ Test +#[0-9]+: .* Passed '
    fi
}

# Prints "N passed, N failed", and ", N skipped" behind it if there are any.
#
# Counted case by case, since the totals of the file's head count a test whose program is missing,
# or whose set-up failed, as skipped; ctest itself and we count those as failed. Text that a test
# printed cannot be taken for a case: "<" is escaped there.
summarise_junit() {
    awk '
        /^[ \t]*<testcase /                       { total++ }
        /^[ \t]*<testcase .* status="run">/       { passed++ }
        /^[ \t]*<testcase .* status="disabled">/  { skipped++ }
        /^[ \t]*<skipped message="SKIP_/          { skipped++ }
        END {
            printf "%d passed, %d failed", passed, total - passed - skipped
            if (skipped) printf ", %d skipped", skipped
            print ""
        }' "$1"
}
