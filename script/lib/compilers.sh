# shellcheck shell=bash
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

# script/check compilers: all products but the fleet's, and the unit tests, with every compiler that
# Debian 12 and 13 have. Those of Debian 13 are in a root of their own, with its newer libraries.

COMPILERS=(gcc-12 clang-14 clang-15 clang-16 gcc-13 gcc-14 clang-17 clang-18 clang-19)
COMPILER_TARGETS=(tallyra tallyra-platform tallyra-regdb tallyra-gst tallyra-gst-tracer
    tallyra-service tallyra-command tallyra-testplatform tallyra-testservice tallyra-check-platform
    tallyra-check-session tallyra-unit-tests tallyra-platform-tests tallyra-network-tests)

# in_place COMMAND...: where the compiler is; replaces the calling process
in_place() {
    case "$COMPILER" in
        gcc-1[34] | clang-1[789]) in_root trixie "$@" ;;
        *) exec "$@" ;;
    esac
}

check_compiler() {
    local folder="compilers/$COMPILER" cxx="${COMPILER/gcc/g++}" room options=()
    # Debian 13's GoogleTest needs the library of GCC 14, which also runs what GCC 13 builds.
    [[ "$COMPILER" != gcc-13 ]] || options=('-DCMAKE_CXX_STANDARD_LIBRARIES=-l:libstdc++.so.6')
    headline "$COMPILER: $(in_place "$COMPILER" --version | head -1)"
    # Without debug information, to save time; optimised, since some warnings need that.
    run_quietly "$BUILD/log/configure-$COMPILER.log" run in_place cmake -S "$ROOT" \
        -B "$BUILD/$folder" -G Ninja "-DCMAKE_C_COMPILER=$COMPILER" \
        "-DCMAKE_CXX_COMPILER=${cxx/clang/clang++}" -DCMAKE_BUILD_TYPE=Release \
        '-DCMAKE_CXX_FLAGS_RELEASE=-O2' '-DCMAKE_C_FLAGS_RELEASE=-O2' \
        -DTALLYRA_BUILD_TESTS=ON -DTALLYRA_BUILD_FLEET=OFF "${options[@]}" ||
        die "cannot configure build/$folder"
    run in_place ninja -C "$BUILD/$folder" -j "$JOBS" -k 0 "${COMPILER_TARGETS[@]}" ||
        die "the build with $COMPILER failed"
    for room in unit platform; do
        RUNNER=in_place run_tests "$COMPILER" "$folder/tests/$room" ||
            die "tests/$room failed: $COMPILER"
    done
}

# check_compilers [NAME...]
check_compilers() {
    (($# > 0)) || set -- "${COMPILERS[@]}"
    for COMPILER in "$@"; do
        [[ " ${COMPILERS[*]} " == *" $COMPILER "* ]] || bad_argument "$COMPILER"
    done
    need_root
    "$ROOT/script/bootstrap" compilers
    make_root trixie trixie compilers-root
    for COMPILER in "$@"; do
        check_compiler
    done
    print_test_summary
}
