#!/usr/bin/env bash
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
#
# ways.sh WAY SOURCE BUILD WORK COMPONENTS [OPTION...]: a player's project gets Tallyra in one way:
#
#   moved       installs the build, and moves what it installed; "found" and "pkg-config" need it
#   found       find_package
#   questions   what find_package answers about versions and components
#   pkg-config  pkg-config, by CMake and by a command
#   contained   add_subdirectory
#   fetched     FetchContent
#   device      installs a build over a device's own platform, and finds that
#   sysroot     find_package and pkg-config in a copy of the machine's files, as CMAKE_SYSROOT, in
#               which the library is installed. As root, in a mount namespace that has a /tmp of its
#               own; script/check 32bit does that
#
# COMPONENTS, separated by semicolons, are those that BUILD has. The options are CMake's. All folders
# have a space in their names.

set -euo pipefail
WAY="$1" SOURCE="$2" BUILD="$3" WORK="$4/two words" COMPONENTS="$5"
HERE="$SOURCE/tests/install"
CMAKE=(cmake -G Ninja "${@:6}")
INSTALLED="$WORK/moved here"
FOLDER="$WORK/$WAY"
EMULATOR=()
unset PKG_CONFIG_PATH LD_LIBRARY_PATH
# The player finds no bus and no settings.
export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$WORK/no-bus" REGDB_FILE="$WORK/no-settings"
export LOGSVC_LEVEL=off
# Objects of an earlier run have the same names, and the compiler cache has them.
export CCACHE_NOHASHDIR=1

fail() {
    printf '%s\n' "$*" >&2
    exit 1
}

# make_player OPTION...: builds the player and runs it
make_player() {
    "${CMAKE[@]}" -S "$HERE/player" -B "$FOLDER" -DWAY="$WAY" "-DCOMPONENTS=$COMPONENTS" "$@"
    ninja -C "$FOLDER" -j 2 all
    run_player "${EMULATOR[@]}" "$FOLDER/player"
    [[ "$COMPONENTS" != *Gst* || "$("$FOLDER/gst-player")" == 'observer none' ]] ||
        fail 'the GStreamer player does not run'
}

# run_player [COMMAND...] PROGRAM
run_player() {
    [[ "$("$@")" == 'interface 1.2' ]] || fail "$* does not print the version"
}

# The library's source, in a folder with a space in its name.
copy_source() {
    mkdir -p "$WORK/source"
    tar -C "$SOURCE" --exclude=./build --exclude=./.git -c . | tar -C "$WORK/source" -x
}

# install_files BUILD FOLDER: none of the files may name the source's folder or that of the build.
# Debug information may.
install_files() {
    rm -rf "$2" "$WORK/installed"
    cmake --install "$1" --prefix "$WORK/installed" >"$WORK/install.log"
    mv "$WORK/installed" "$2"
    if grep -rIlF -e "$SOURCE" -e "$WORK/installed" "$2"; then
        fail 'these installed files name folders of this machine'
    fi
}

try_moved() {
    install_files "$BUILD" "$INSTALLED"
}

try_found() {
    make_player "-DCMAKE_PREFIX_PATH=$INSTALLED"
}

try_questions() {
    "${CMAKE[@]}" -S "$HERE/finds" -B "$FOLDER" "-DCMAKE_PREFIX_PATH=$INSTALLED" \
        "-DTHERE=$COMPONENTS" -DMISSING=Nonsense
}

try_pkg-config() {
    local flags
    PKG_CONFIG_PATH="$(dirname "$(find "$INSTALLED" -name tallyra.pc)")"
    export PKG_CONFIG_PATH
    make_player
    # pkg-config escapes the spaces for a shell that reads its output.
    flags="$(pkg-config --cflags --libs tallyra)"
    eval "${CXX:-c++} -std=c++11 \"\$HERE/player/player.cpp\" -o \"\$FOLDER/by-command\" $flags"
    LD_LIBRARY_PATH="$(dirname "$PKG_CONFIG_PATH")" run_player "$FOLDER/by-command"
}

# make_containing_player OPTION...: nothing of Tallyra is installed with the player
make_containing_player() {
    copy_source
    make_player "-DSOURCE=$WORK/source" "$@"
    cmake --install "$FOLDER" --prefix "$FOLDER/installed"
    [[ "$(find "$FOLDER/installed" -not -type d)" == "$FOLDER/installed/bin/player" ]] ||
        fail "more is installed than the player: $(find "$FOLDER/installed")"
}

try_contained() {
    COMPONENTS=Platform
    make_containing_player
}

try_fetched() {
    make_containing_player "-DFETCH_GST=$([[ "$COMPONENTS" == *Gst* ]] && echo ON || echo OFF)"
}

# The device's platform is the Linux platform under another name, in a folder of its own.
try_device() {
    local platform="$FOLDER/the device's/libdevice.so" installed="$FOLDER/installed"
    mkdir -p "$(dirname "$platform")"
    cp "$(readlink -f "$BUILD/lib/libtallyra-platform.so")" "$platform"
    "${CMAKE[@]}" -S "$SOURCE" -B "$FOLDER/library" -DTALLYRA_BUILD_SERVICE=OFF \
        -DTALLYRA_BUILD_GST=OFF -DTALLYRA_BUILD_TESTKIT=OFF -DTALLYRA_BUILD_EXAMPLES=OFF \
        "-DTALLYRA_PLATFORM_LIBRARIES=$platform"
    ninja -C "$FOLDER/library" -j 2
    install_files "$FOLDER/library" "$installed"
    if find "$installed" | grep platform ||
        grep -rE 'platform|libdevice' --include='*Targets*' --include='*.pc' "$installed"; then
        fail 'the platform of the device is installed or named'
    fi
    "${CMAKE[@]}" -S "$HERE/finds" -B "$FOLDER/finds" "-DCMAKE_PREFIX_PATH=$installed" \
        -DMISSING=Platform
    COMPONENTS='' WAY=found FOLDER="$FOLDER/player" \
        LD_LIBRARY_PATH="$BUILD/lib" make_player "-DCMAKE_PREFIX_PATH=$installed"
}

try_sysroot() {
    local sysroot=/tmp/sysroot sysroot_folder="$FOLDER"
    mkdir /tmp/changed /tmp/scratch "$sysroot"
    mount -t overlay -o lowerdir=/,upperdir=/tmp/changed,workdir=/tmp/scratch overlay "$sysroot"
    "${CMAKE[@]}" -S "$SOURCE" -B "$FOLDER/library" -DTALLYRA_BUILD_SERVICE=OFF \
        -DTALLYRA_BUILD_TESTKIT=OFF -DTALLYRA_BUILD_EXAMPLES=OFF -DCMAKE_INSTALL_PREFIX=/usr \
        -DCMAKE_INSTALL_LIBDIR=lib/arm-linux-gnueabihf
    ninja -C "$FOLDER/library" -j 2
    DESTDIR="$sysroot" cmake --install "$FOLDER/library"
    EMULATOR=(qemu-arm -L "$sysroot")
    for WAY in found pkg-config; do
        FOLDER="$sysroot_folder/$WAY"
        make_player "-DCMAKE_SYSROOT=$sysroot"
    done
}

rm -rf "$FOLDER"
mkdir -p "$FOLDER"
"try_$WAY"
