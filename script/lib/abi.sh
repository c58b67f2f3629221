# shellcheck shell=bash
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

# script/check abi: compares the binary interface of libtallyra.so with its description in
# abi/libtallyra.so.1.ARCHITECTURE.abi: exported symbols, the table of virtual functions, sizes,
# offsets and enumerators. What players cannot reach is left out, and so is where it stands in the
# sources. CONTRIBUTING.md says which changes are allowed; each needs --update, so that it is seen.

ABI="$ROOT/abi"
ABI_TRIAL="$BUILD/abi"

# describe_abi LIBRARY HEADERS OUTPUT
describe_abi() {
    mkdir -p "$(dirname "$3")"
    abidw --headers-dir "$2" --drop-private-types --exported-interfaces-only --no-show-locs \
        --no-corpus-path --no-comp-dir-path --no-architecture --no-elf-needed --no-parameter-names \
        --out-file "$3" "$1" || die "abidw cannot read $1"
    # Where the sources are is not part of the interface.
    sed -i "s|path='[^']*/Client/|path='Client/|" "$3"
}

# compare_abi ARCHITECTURE DESCRIPTION: prints what changed, and fails if anything did
compare_abi() {
    local reference="$ABI/libtallyra.so.1.$1.abi"
    [[ -f "$reference" ]] || die "there is no $reference to compare with; --update makes it"
    abidiff --no-corpus-path "$reference" "$2"
}

# compare_built_abi ARCHITECTURE PRESET: the library in that preset's folder
compare_built_abi() {
    describe_abi "$BUILD/$2/lib/libtallyra.so" "$ROOT/include/tallyra" "$ABI_TRIAL/$1.abi"
    compare_abi "$1" "$ABI_TRIAL/$1.abi" ||
        die "the binary interface changed on $1. Additions for a new minor version: add --update"
    printf '%s: the binary interface is as described\n' "$1"
}

build_for_abi() {
    if [[ "$1" == amd64 ]]; then
        build gcc tallyra
    else
        need_root
        "$ROOT/script/bootstrap" 32bit
        make_root narrow bookworm 32bit-root i386 armhf
        build_narrow "$1" tallyra
    fi
}

# check_abi [--update|--self-test] [ARCHITECTURE...]
check_abi() {
    local option='' architecture preset
    "$ROOT/script/bootstrap" abi
    if [[ "${1:-}" == --* ]]; then
        option="$1"
        shift
    fi
    [[ "$option" == @(|--update|--self-test) ]] || bad_argument "$option"
    if [[ "$option" == --self-test ]]; then
        (($# == 0)) || bad_argument "$1"
        test_check_abi
        return
    fi
    (($# > 0)) || set -- amd64
    for architecture in "$@"; do
        [[ "$architecture" == @(amd64|i386|armhf) ]] || bad_argument "$architecture"
        preset="${architecture/amd64/gcc}"
        build_for_abi "$architecture"
        if [[ "$option" == --update ]]; then
            describe_abi "$BUILD/$preset/lib/libtallyra.so" "$ROOT/include/tallyra" \
                "$ABI/libtallyra.so.1.$architecture.abi"
        else
            compare_built_abi "$architecture" "$preset"
        fi
    done
}

# change_interface FOLDER NAME: changes the headers or the map in the folder
change_interface() {
    local headers="$1/include/tallyra" duration='virtual void SetDuration(int duration) = 0;'
    local drm='virtual void SetDrmType(TY_DRM_TYPE drmType) = 0;'
    case "$2" in
        nothing) ;;
        slots) sed -i "s/$duration/@/; s/$drm/$duration/; s/@/$drm/" "$headers/ITYDataCollector.h" ;;
        field) sed -i 's/.*m_nDrmType;/&\nint m_nAdded = 0;/' "$headers/TYContentInfo.h" ;;
        padding) sed -i 's/.*m_nDrmType;/&\nstd::int8_t m_nAdded = 0;/' "$headers/TYContentInfo.h" ;;
        symbol) sed -i '/8SetGenre/d' "$1/libtallyra.map" ;;
        enumerator) sed -i 's/TY_EVENT_SEEK = 9,/TY_EVENT_SEEK = 19,/' "$headers/TYTypes.h" ;;
        slot-added)
            sed -i 's/.*GetVersion(.*;/&\nvirtual void Added() {}/' "$headers/ITYDataCollector.h"
            ;;
    esac
}

# build_interface FOLDER: a library of the sources alone that have the interface, with what the
# folder holds in place of the headers and the map
build_interface() {
    local source flags
    read -ra flags < <(pkg-config --cflags dbus-1 glib-2.0)
    for source in TYFactory TYContentInfo TYDataCollector; do
        g++ -std=c++20 -g -fPIC -fvisibility=hidden -fvisibility-inlines-hidden \
            -DTALLYRA_ASSERTIONS=1 "-I$1/include" "-I$ROOT/Client/src" "-I$ROOT/Service/inc" \
            "-I$ROOT/Service/src" "-I$ROOT/Guest/inc" "-I$ROOT/Platform/include" "${flags[@]}" \
            -c "$ROOT/Client/src/$source.cpp" -o "$1/$source.o" || die "cannot compile $source.cpp"
    done
    g++ -shared -Wl,-soname,libtallyra.so.1 "-Wl,--version-script=$1/libtallyra.map" \
        -o "$1/libtallyra.so" "$1"/*.o || die 'cannot link the interface'
    describe_abi "$1/libtallyra.so" "$1/include/tallyra" "$1/abi"
}

# expect_report NAME PATTERN...: what the check prints after that change, and nothing without one
expect_report() {
    local folder="$ABI_TRIAL/$1" pattern status=0
    rm -rf "$folder"
    mkdir -p "$folder"
    cp -r "$ROOT/include" "$ROOT/Client/libtallyra.map" "$folder"
    change_interface "$folder" "$1"
    build_interface "$folder"
    compare_abi amd64 "$folder/abi" >"$folder/report" || status=$?
    if (($# == 1)); then
        ((status == 0)) || die "no change, but: $(cat "$folder/report")"
    else
        ((status != 0)) || die "the change is not found: $1"
    fi
    for pattern in "${@:2}"; do
        grep -qE "$pattern" "$folder/report" ||
            die "$1: \"$pattern\" is missing in: $(cat "$folder/report")"
    done
    printf '%-10s %s\n' "$1" "$(sed -nE "/${2:-^}/{s/^ *//p;q}" "$folder/report")"
}

test_check_abi() {
    expect_report nothing
    expect_report slots 'SetDuration\(int\) changed from 4 to 5' 'SetDrmType.* changed from 5 to 4'
    expect_report field "'int m_nAdded', at offset" "type size changed from 1664 to 1728"
    expect_report padding "m_nAdded', at offset"
    expect_report symbol "\[D\] 'method void CTYContentInfo::SetGenre"
    expect_report enumerator "'TY_EVENT_TYPE::TY_EVENT_SEEK' from value '9' to '19'"
    expect_report slot-added "'method virtual void ITYDataCollector::Added\(\)'"
}
