# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# What has to be installed, by the names of Debian 12's packages. To be sourced, after
# architectures.sh where packages of another architecture are among them.

# Building the libraries and programs, and running them in namespaces of their own.
# shellcheck disable=SC2034  # used by the scripts that source this file
build_packages=(
    g++ cmake ninja-build pkg-config
    libjsoncpp-dev
    libcli11-dev libsystemd-dev libogg-dev # the programs
    libmicrohttpd-dev           # zav-shm-web
    util-linux mount            # private namespaces with a /dev/shm of their own
)

# What native builds need for the GStreamer plugin and the pipelines of its tests.
# shellcheck disable=SC2034
gstreamer_packages=(
    libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev libgstreamer-plugins-bad1.0-dev
    gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good
    gstreamer1.0-plugins-bad gstreamer1.0-plugins-ugly gstreamer1.0-libav
    libgstrtspserver-1.0-dev ffmpeg openssl glib-networking # zav-shm-rtspd and its tests
)

# The same with the tests.
# shellcheck disable=SC2034
test_packages=(
    "${build_packages[@]}"
    libgtest-dev libgmock-dev libbenchmark-dev
    systemd # checks the service file
    tmux    # shows zav-shm top to its tests
)

# What native builds need for the tests of the Python package, and of the JSON schema.
# shellcheck disable=SC2034
python_packages=(python3 python3-pytest python3-numpy python3-jsonschema)

# What scripts/check needs beside those.
# shellcheck disable=SC2034
check_packages=(
    clang-14 clang-format-14 clang-tidy-14 libclang-rt-14-dev
    shellcheck git mypy
    spin # scripts/model
)

# What scripts/package needs beside build_packages and gstreamer_packages.
# shellcheck disable=SC2034
package_packages=(dpkg-dev debhelper dh-python lintian fakeroot git)

# What preset armhf needs beside test_packages. GStreamer and libsystemd cannot be installed for it
# beside their native packages.
# shellcheck disable=SC2034
armhf_packages=(
    g++-arm-linux-gnueabihf qemu-user
    libjsoncpp-dev:armhf libogg-dev:armhf libgtest-dev:armhf libgmock-dev:armhf libbenchmark-dev:armhf
)

# What preset i386 needs beside test_packages. Not gcc-multilib, which removes the compiler above.
# shellcheck disable=SC2034
i386_packages=(
    gcc-12-multilib g++-12-multilib
    libjsoncpp-dev:i386 libogg-dev:i386 libgtest-dev:i386 libgmock-dev:i386 libbenchmark-dev:i386
)

# is_installed <package>[:<architecture>]
#
# The architecture counts: with libjsoncpp-dev:armhf alone nothing links natively.
is_installed() {
    local architecture
    architecture=$(dpkg --print-architecture)
    [[ $1 != *:* ]] || architecture=${1#*:}
    dpkg-query --show --showformat='${db:Status-Status} ${Architecture}\n' "$1" 2>/dev/null |
        grep -qE "^installed ($architecture|all)\$"
}

# foreign_architectures <package>...   those that are named behind a package, once each
foreign_architectures() {
    printf '%s\n' "$@" | sed -n 's/.*://p' | sort -u
}

# need_packages <package>...   installs those that are missing; apt is not touched, and root not
#                              needed, when none is
need_packages() {
    local package architecture missing=()
    for package in "$@"; do
        is_installed "$package" || missing+=("$package")
    done
    if ((${#missing[@]} == 0)); then
        return 0
    fi
    if ((EUID != 0)); then
        printf '%s: packages are missing. As root:\n' "$0" >&2
        foreign_architectures "${missing[@]}" | sed 's/^/    dpkg --add-architecture /' >&2
        printf '    apt-get install --no-install-recommends %s\n' "${missing[*]}" >&2
        return 1
    fi
    for architecture in $(foreign_architectures "${missing[@]}"); do
        allow_architecture "$architecture" || return 1
    done
    export DEBIAN_FRONTEND=noninteractive
    local wait_for_lock=(-o DPkg::Lock::Timeout=120) # seconds
    apt-get --quiet "${wait_for_lock[@]}" update &&
        apt-get --quiet "${wait_for_lock[@]}" install --yes --no-install-recommends "${missing[@]}"
}
