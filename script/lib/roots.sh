# shellcheck shell=bash
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

# Debian roots in build/roots, for compilers and libraries that are to stay off the machine. Commands
# run there in namespaces of their own: no mount and no process outlives the script.

# root_namespace COMMAND...: replaces the calling process, for use with "run"
root_namespace() {
    exec unshare --mount --propagation private --pid --fork --kill-child "$@"
}

# in_root NAME COMMAND...: likewise; every path of the project is the same inside the root and outside
in_root() {
    # shellcheck disable=SC2016 # the $ are for the inner shell
    root_namespace bash -euc '
        root="$1" project="$2"
        shift 2
        mkdir -p "$root$project"
        mount --bind "$project" "$root$project"
        mount --rbind /dev "$root/dev"
        mount -t proc proc "$root/proc"
        mount -t tmpfs tmpfs "$root/tmp"
        exec chroot "$root" /usr/bin/env -i -C "$project" PATH=/usr/sbin:/usr/bin:/sbin:/bin \
            HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"' \
        bash "$BUILD/roots/$1" "$ROOT" "CCACHE_DIR=$BUILD/ccache" "NINJA_STATUS=$NINJA_STATUS" "${@:2}"
}

need_root() {
    ((EUID == 0)) || die 'root is needed, to make a Debian root in build/roots and to enter it'
    # unshare ignores SIGTERM. Killed, it takes everything in its namespaces along.
    # shellcheck disable=SC2034 # lib/common.sh reads it
    STOP_LIMIT=1
}

# make_root NAME SUITE PURPOSE [ARCHITECTURE...]: with the packages that script/bootstrap lists
make_root() {
    local name="$1" folder="$BUILD/roots/$1" machine packages
    packages="$("$ROOT/script/bootstrap" --list "$3")"
    if [[ "$(cat "$folder/packages" 2>/dev/null)" == "$packages" ]]; then
        printf 'root: build/roots/%s is complete\n' "$name"
        return
    fi
    printf 'making a Debian root in build/roots/%s\n' "$name"
    rm -rf --one-file-system "$folder"
    mkdir -p "$folder"
    run_quietly "$BUILD/log/debootstrap-$name.log" run root_namespace debootstrap \
        --variant=minbase "$2" "$folder" "${DEBIAN_MIRROR:-http://deb.debian.org/debian}" ||
        die 'debootstrap failed'
    cp /etc/resolv.conf "$folder/etc/resolv.conf"
    for machine in "${@:4}"; do
        run in_root "$name" dpkg --add-architecture "$machine"
    done
    run_quietly "$BUILD/log/update-$name.log" run in_root "$name" apt-get update -q ||
        die 'apt-get update failed in the root'
    # shellcheck disable=SC2086 # one word for each package
    run_quietly "$BUILD/log/install-$name.log" run in_root "$name" \
        apt-get install -q -y --no-install-recommends $packages ||
        die 'apt-get install failed in the root'
    run in_root "$name" apt-get clean
    printf '%s\n' "$packages" >"$folder/packages"
}
