# shellcheck shell=bash
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

# script/check 32bit: the library and its unit tests on 32-bit machines. Compilers, libraries and
# qemu-user, which runs programs for Arm, are in a Debian root of their own. Commands run there in
# namespaces of their own: no mount and no process outlives the script. Programs for x86 run directly.

NARROW_ROOT="$BUILD/roots/narrow"
NARROW_TARGETS=(tallyra tallyra-unit-tests tallyra-unasserted-tests tallyra-capture)
CAPTURES="$BUILD/capture"

# narrow_namespace COMMAND...: replaces the calling process, for use with "run"
narrow_namespace() {
    exec unshare --mount --propagation private --pid --fork --kill-child "$@"
}

# in_root COMMAND...: likewise; every path of the project is the same inside the root and outside
in_root() {
    # shellcheck disable=SC2016 # the $ are for the inner shell
    narrow_namespace bash -euc '
        root="$1" project="$2"
        shift 2
        mkdir -p "$root$project"
        mount --bind "$project" "$root$project"
        mount --rbind /dev "$root/dev"
        mount -t proc proc "$root/proc"
        mount -t tmpfs tmpfs "$root/tmp"
        exec chroot "$root" /usr/bin/env -i -C "$project" PATH=/usr/sbin:/usr/bin:/sbin:/bin \
            HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"' \
        bash "$NARROW_ROOT" "$ROOT" "CCACHE_DIR=$BUILD/ccache" "NINJA_STATUS=$NINJA_STATUS" "$@"
}

make_root() {
    local machine packages
    packages="$("$ROOT/script/bootstrap" --list 32bit-root)"
    if [[ "$(cat "$NARROW_ROOT/packages" 2>/dev/null)" == "$packages" ]]; then
        printf 'root: build/roots/narrow is complete\n'
        return
    fi
    printf 'making a Debian root in build/roots/narrow\n'
    rm -rf --one-file-system "$NARROW_ROOT"
    mkdir -p "$NARROW_ROOT"
    run_quietly "$BUILD/log/debootstrap.log" run narrow_namespace debootstrap --variant=minbase \
        bookworm "$NARROW_ROOT" "${DEBIAN_MIRROR:-http://deb.debian.org/debian}" ||
        die 'debootstrap failed'
    cp /etc/resolv.conf "$NARROW_ROOT/etc/resolv.conf"
    for machine in i386 armhf; do
        run in_root dpkg --add-architecture "$machine"
    done
    run_quietly "$BUILD/log/narrow-update.log" run in_root apt-get update -q ||
        die 'apt-get update failed in the root'
    # shellcheck disable=SC2086 # one word for each package
    run_quietly "$BUILD/log/narrow-install.log" run in_root \
        apt-get install -q -y --no-install-recommends $packages ||
        die 'apt-get install failed in the root'
    run in_root apt-get clean
    printf '%s\n' "$packages" >"$NARROW_ROOT/packages"
}

build_narrow() {
    printf 'configuring build/%s\n' "$1"
    run_quietly "$BUILD/log/configure-$1.log" run in_root cmake --preset "$1" ||
        die "cannot configure build/$1"
    run in_root ninja -C "$BUILD/$1" -j "$JOBS" "${NARROW_TARGETS[@]}" || die 'the build failed'
    # The fifth byte of an ELF file is its class.
    [[ "$(od -An -tu1 -j4 -N1 "$BUILD/$1/lib/libtallyra.so")" -eq 1 ]] ||
        die "build/$1/lib/libtallyra.so is not for a 32-bit machine"
}

compare_capture() {
    local emulator=()
    [[ "$1" != armhf ]] || emulator=("$ROOT/script/lib/emulate" qemu-arm)
    run in_root "${emulator[@]}" "$BUILD/$1/bin/tallyra-capture" "$CAPTURES/$1" ||
        die "the capture on $1 failed"
    cmp "$CAPTURES/gcc" "$CAPTURES/$1" || die "the wire differs between 64 bits and $1"
    printf '%s: the captured wire equals that of the 64-bit build, byte for byte\n' "$1"
}

check_32bit() {
    local machine
    # unshare ignores SIGTERM. Killed, it takes everything in its namespaces along.
    # shellcheck disable=SC2034 # lib/common.sh reads it
    STOP_LIMIT=1
    [[ "$*" == @(|i386|armhf) ]] || bad_argument "$*"
    (($# > 0)) || set -- i386 armhf
    ((EUID == 0)) || die 'root is needed, to make a Debian root in build/roots and to enter it'
    "$ROOT/script/bootstrap" 32bit
    make_root
    rm -rf "$CAPTURES"
    mkdir -p "$CAPTURES"
    build gcc tallyra-capture
    run "$BUILD/gcc/bin/tallyra-capture" "$CAPTURES/gcc" || die 'the 64-bit capture failed'
    for machine in "$@"; do
        headline "$machine"
        build_narrow "$machine"
        RUNNER=in_root run_tests "$machine" "$machine/tests/unit" || die "unit tests failed on $machine"
        compare_capture "$machine"
    done
    print_test_summary
}
