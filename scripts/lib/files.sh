# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# The project's files: what git tracks, and what is new and not ignored. To be sourced; works in
# the top folder of the tree.

# project_files <array> [pathspec]...   fills the array with file names; ends the script if there
#                                       are none, so that no check passes by looking at nothing
project_files() {
    local -n _into=$1
    shift
    local listing file
    # A checkout may belong to somebody else than root, who runs this in CI.
    listing=$(git -c safe.directory="$PWD" -c core.quotePath=off \
        ls-files --cached --others --exclude-standard -- "$@") || exit 1
    _into=()
    while IFS= read -r file; do
        if [[ -f $file ]]; then # not one that was deleted and is still tracked
            _into+=("$file")
        fi
    done <<<"$listing"
    if ((${#_into[@]} == 0)); then
        printf 'no file matches: %s\n' "$*" >&2
        exit 1
    fi
}

# for_each_file <array> <command>...   runs the command once per file, on all processors; fails if
#                                      one of them does
for_each_file() {
    local -n _from=$1
    shift
    printf '%s\0' "${_from[@]}" | xargs -0 -n 1 -P "$(nproc)" "$@"
}
