# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# Building and testing one preset of CMakePresets.json in build/<preset>. To be sourced; works in
# the top folder of the tree.

build_preset() {
    cmake --preset "$1" && cmake --build --preset "$1"
}

# What the sanitizers need at run time; a developer's own settings win.
#
# AddressSanitizer's checks of string arguments and of globals' initialisation order are off by
# default and cost little here.
export_sanitizer_options() {
    export ASAN_OPTIONS="${ASAN_OPTIONS-strict_string_checks=1:check_initialization_order=1}"
    export UBSAN_OPTIONS="${UBSAN_OPTIONS-print_stacktrace=1}"
    export TSAN_OPTIONS="${TSAN_OPTIONS-halt_on_error=1:second_deadlock_stack=1}"
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

# run_ctest <preset> <junit file> [ctest option]...
#
# No system tests under ThreadSanitizer: it sees nothing that passes between processes, and
# slows them beyond the times that they are about. Under AddressSanitizer those that are about
# rates are left out; the other system tests run the same programs.
run_ctest() {
    local preset=$1 junit=$2
    shift 2
    local runner=() left_out=()
    if [[ $preset == tsan ]]; then
        runner=(without_randomised_addresses)
        left_out=(--label-exclude '^system$')
    elif [[ $preset == asan ]]; then
        left_out=(--exclude-regex '^(Consumers/|Disturbed\.|Client_Exchange\.|Frames_Through_Center\.)')
    fi
    export_sanitizer_options
    rm -f "$junit"
    # Three times as many as there are processors: tests/CMakeLists.txt lets most tests count three.
    "${runner[@]}" ctest --test-dir "build/$preset" -j"$((3 * $(nproc)))" --output-on-failure \
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
