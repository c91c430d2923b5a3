# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# What has to be installed, by the names of Debian 12's packages. To be sourced.

# Building the libraries and programs, and running them in namespaces of their own.
# shellcheck disable=SC2034  # used by the scripts that source this file
build_packages=(
    g++ cmake ninja-build pkg-config
    libjsoncpp-dev
    libcli11-dev libsystemd-dev # the programs
    util-linux mount            # private namespaces with a /dev/shm of their own
)

# The same with the tests.
# shellcheck disable=SC2034
test_packages=(
    "${build_packages[@]}"
    libgtest-dev libgmock-dev libbenchmark-dev
    systemd # checks the service file
)

# What scripts/check needs beside those.
# shellcheck disable=SC2034
check_packages=(
    clang-14 clang-format-14 clang-tidy-14 libclang-rt-14-dev
    shellcheck git
    spin # scripts/model
)

is_installed() {
    # The architecture counts: with libjsoncpp-dev:armhf alone nothing links here.
    dpkg-query --show --showformat='${db:Status-Status} ${Architecture}\n' "$1" 2>/dev/null |
        grep -qE "^installed ($(dpkg --print-architecture)|all)\$"
}

# need_packages <package>...   installs those that are missing; apt is not touched, and root not
#                              needed, when none is
need_packages() {
    local package missing=()
    for package in "$@"; do
        is_installed "$package" || missing+=("$package")
    done
    if ((${#missing[@]} == 0)); then
        return 0
    fi
    if ((EUID != 0)); then
        printf '%s: packages are missing. As root:\n    apt-get install --no-install-recommends %s\n' \
            "$0" "${missing[*]}" >&2
        return 1
    fi
    export DEBIAN_FRONTEND=noninteractive
    local wait_for_lock=(-o DPkg::Lock::Timeout=120) # seconds
    apt-get --quiet "${wait_for_lock[@]}" update &&
        apt-get --quiet "${wait_for_lock[@]}" install --yes --no-install-recommends "${missing[@]}"
}
