# shellcheck shell=bash
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

# script/check 32bit: the library and its unit tests on 32-bit machines. Compilers, libraries and
# qemu-user, which runs programs for Arm, are in the Debian root "narrow". Programs for x86 run
# directly.

NARROW_TARGETS=(tallyra tallyra-unit-tests tallyra-unasserted-tests tallyra-capture)
CAPTURES="$BUILD/capture"

in_narrow() {
    in_root narrow "$@"
}

# build_narrow MACHINE TARGET...
build_narrow() {
    printf 'configuring build/%s\n' "$1"
    run_quietly "$BUILD/log/configure-$1.log" run in_narrow cmake --preset "$1" ||
        die "cannot configure build/$1"
    run in_narrow ninja -C "$BUILD/$1" -j "$JOBS" "${@:2}" || die 'the build failed'
    # The fifth byte of an ELF file is its class.
    [[ "$(od -An -tu1 -j4 -N1 "$BUILD/$1/lib/libtallyra.so")" -eq 1 ]] ||
        die "build/$1/lib/libtallyra.so is not for a 32-bit machine"
}

compare_capture() {
    local emulator=()
    [[ "$1" != armhf ]] || emulator=("$ROOT/script/lib/emulate" qemu-arm)
    run in_narrow "${emulator[@]}" "$BUILD/$1/bin/tallyra-capture" "$CAPTURES/$1" ||
        die "the capture on $1 failed"
    cmp "$CAPTURES/gcc" "$CAPTURES/$1" || die "the wire differs between 64 bits and $1"
    printf '%s: the captured wire equals that of the 64-bit build, byte for byte\n' "$1"
}

# A player's project finds the library in a sysroot for Arm.
check_sysroot() {
    run_quietly "$BUILD/log/sysroot.log" run in_narrow tests/install/ways.sh sysroot "$ROOT" none \
        "$BUILD/armhf/install" Platform \
        "-DCMAKE_TOOLCHAIN_FILE=$ROOT/cmake/toolchains/armhf.cmake" ||
        die 'a player cannot be built in a sysroot'
    printf 'armhf: a player was built in a sysroot with CMake and with pkg-config, and ran\n'
}

check_32bit() {
    local machine
    [[ "$*" == @(|i386|armhf) ]] || bad_argument "$*"
    (($# > 0)) || set -- i386 armhf
    need_root
    "$ROOT/script/bootstrap" 32bit
    "$ROOT/script/bootstrap" abi
    make_root narrow bookworm 32bit-root i386 armhf
    rm -rf "$CAPTURES"
    mkdir -p "$CAPTURES"
    build gcc tallyra-capture
    run "$BUILD/gcc/bin/tallyra-capture" "$CAPTURES/gcc" || die 'the 64-bit capture failed'
    for machine in "$@"; do
        headline "$machine"
        build_narrow "$machine" "${NARROW_TARGETS[@]}"
        RUNNER=in_narrow run_tests "$machine" "$machine/tests/unit" ||
            die "unit tests failed on $machine"
        compare_capture "$machine"
        compare_built_abi "$machine" "$machine"
        [[ "$machine" != armhf ]] || check_sysroot
    done
    print_test_summary
}
