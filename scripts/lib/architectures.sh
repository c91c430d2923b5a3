# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# Letting apt install packages of another architecture beside the machine's own, on Debian 12 and
# as root. To be sourced.

# with_native_security <format> <architecture>   filters a file of apt's sources
#
# Every security source that names no architecture gets the native one. The security mirrors carry
# indexes of the other architectures that do not always match the signed list; apt then ignores the
# whole source, and development packages of the native architecture no longer fit what is installed.
#
#   format    deb822 (*.sources) or list (one line per source)
with_native_security() {
    local format=$1 native=$2
    awk -v format="$format" -v native="$native" '
        function end_stanza() {
            if (is_security && !is_limited) print "Architectures: " native
            is_security = is_limited = 0
        }
        format == "deb822" && /^[ \t]*$/                  { end_stanza() }
        format == "deb822" && /^[^#]*security/            { is_security = 1 }
        format == "deb822" && tolower($0) ~ /^architectures:/ { is_limited = 1 }
        format == "list" && /^deb(-src)?[ \t].*security/ && !/\[[^]]*arch=/ {
            if (!sub(/\[/, "[arch=" native " ")) sub(/^deb(-src)?[ \t]+/, "&[arch=" native "] ")
        }
        { print }
        END { if (format == "deb822") end_stanza() }'
}

# The file keeps its owner and mode, and is not touched when there is nothing to change.
limit_security_sources() {
    local file format limited native
    native=$(dpkg --print-architecture)
    for file in /etc/apt/sources.list /etc/apt/sources.list.d/*.list \
        /etc/apt/sources.list.d/*.sources; do
        [[ -f $file ]] || continue
        format=list
        [[ $file != *.sources ]] || format=deb822
        limited=$(with_native_security "$format" "$native" <"$file") || return 1
        if [[ $limited != "$(cat "$file")" ]]; then
            printf '%s: security updates only for %s from now on\n' "$file" "$native"
            printf '%s\n' "$limited" >"$file"
        fi
    done
}

# allow_architecture <architecture>   what apt-get update needs to have been done before
allow_architecture() {
    if dpkg --print-foreign-architectures | grep -qx "$1"; then
        return 0
    fi
    limit_security_sources && dpkg --add-architecture "$1"
}
