# shellcheck shell=bash
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

# script/package: the checks that install the packages, in Debian roots of lib/roots.sh.

# Repositories for apt: these packages, and others.
CURRENT="$PACKAGES/apt/current"
PREVIOUS="$PACKAGES/apt/previous"
DEVICE="$PACKAGES/apt/device"
COPY="$BUILD/roots/copy"

make_bare_root() {
    need_root
    make_root bare bookworm package-root
}

# in_copy COMMAND...: replaces the calling process. Mounts a copy of the bare root at $COPY/root, which
# vanishes with the command; the project is there under the same path, and apt's downloads are kept.
in_copy() {
    mkdir -p "$COPY" "$BUILD/roots/archives"
    # shellcheck disable=SC2016 # the $ are for the inner shell
    root_namespace --mount-proc bash -euc '
        bare="$1" copy="$2" archives="$3" project="$4"
        shift 4
        mount -t tmpfs tmpfs "$copy"
        mkdir "$copy/changes" "$copy/work" "$copy/root"
        mount -t overlay overlay \
            -o "lowerdir=$bare,upperdir=$copy/changes,workdir=$copy/work" "$copy/root"
        mkdir -p "$copy/root$project"
        mount --bind "$project" "$copy/root$project"
        mount --bind "$archives" "$copy/root/var/cache/apt/archives"
        mount --rbind /dev "$copy/root/dev"
        mount -t proc proc "$copy/root/proc"
        mount -t tmpfs tmpfs "$copy/root/tmp"
        exec "$@"' bash "$BUILD/roots/bare" "$COPY" "$BUILD/roots/archives" "$ROOT" "$@"
}

index_packages() {
    (cd "$1" && dpkg-scanpackages . >Packages 2>/dev/null)
}

make_current() {
    rm -rf "$CURRENT"
    mkdir -p "$CURRENT"
    packages | xargs ln -t "$CURRENT"
    index_packages "$CURRENT"
}

# The first version has no predecessor. So these packages, with a lower version, stand in for it.
make_previous() {
    local package folder="$PREVIOUS/unpacked"
    rm -rf "$PREVIOUS"
    mkdir -p "$PREVIOUS"
    for package in $(packages); do
        dpkg-deb -R "$package" "$folder"
        sed -Ei "s/(^Version: |[(]>?= )${VERSION//./\\.}/&~previous/g" "$folder/DEBIAN/control"
        dpkg-deb --root-owner-group -b "$folder" "$PREVIOUS" >/dev/null
        rm -rf "$folder"
    done
    index_packages "$PREVIOUS"
}

# The example player, with the packaged library.
build_player() {
    local flags libraries
    extract_packages "$PACKAGES/installed"
    libraries="$PACKAGES/installed/usr/lib/$(dpkg-architecture -q DEB_HOST_MULTIARCH)"
    read -ra flags < <(pkg-config --cflags --libs glib-2.0)
    g++ -std=c++20 -I "$ROOT/include" "$ROOT"/examples/player/*.cpp -L "$libraries" \
        "-Wl,-rpath-link,$libraries" -ltallyra "${flags[@]}" -o "$PACKAGES/player"
}

# The platform of a device: each function fails, but the log, and the switch is on.
device_source() {
    printf '#include <stdio.h>\n'
    printf 'int regdb_get_bool(const char* key, int* value) { return *value = 1, !key; }\n'
    printf 'int logsvc_print() { return fprintf(stderr, "the device: a line\\n"); }\n'
    sed -n 's/^    \([a-z_]*\);$/\1/p' "$ROOT/Platform/linux/libtallyra-platform.map" |
        grep -vx -e regdb_get_bool -e logsvc_print | sed 's/.*/int &() { return -1; }/'
}

# A package as a device's maker builds it.
make_device() {
    local folder="$DEVICE/root" libraries
    libraries="$folder/usr/lib/$(dpkg-architecture -q DEB_HOST_MULTIARCH)"
    rm -rf "$DEVICE"
    mkdir -p "$folder/DEBIAN" "$libraries"
    device_source | gcc -x c -shared -fPIC -Wl,-soname,libtallyra-platform.so.1 \
        "-Wl,--version-script=$ROOT/Platform/linux/libtallyra-platform.map" \
        - -o "$libraries/libtallyra-platform.so.1"
    cat >"$folder/DEBIAN/control" <<END
Package: libdevice-platform
Version: 1
Architecture: $(dpkg --print-architecture)
Multi-Arch: same
Maintainer: The maker of a device <maintainers@tallyra.example>
Provides: tallyra-platform
Conflicts: libtallyra-platform1
Replaces: libtallyra-platform1
Description: platform of a device
END
    dpkg-deb --root-owner-group -b "$folder" "$DEVICE/platform.deb" >/dev/null
}

check_lifecycle() {
    make_bare_root
    make_previous
    make_current
    build_player
    make_device
    run in_copy chroot "$COPY/root" /usr/bin/env -i -C "$ROOT" PATH=/usr/sbin:/usr/bin:/sbin:/bin \
        HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive "PREVIOUS=$PREVIOUS" \
        "CURRENT=$CURRENT" "PLAYER=$PACKAGES/player" "DEVICE=$DEVICE/platform.deb" \
        script/lib/lifecycle || die 'a package did not do what it should'
}

# systemd, which makes our users, is purged with our packages and leaves these folders behind.
check_piuparts() {
    local files log="$PACKAGES/piuparts.log"
    local systemd='^/(root/\.ssh|var/(cache|lib|log)/private|var/lib/systemd/(coredump|pstore))/?$'
    make_bare_root
    make_previous
    mapfile -t files < <(packages)
    run root_namespace --mount-proc piuparts --existing-chroot="$BUILD/roots/bare" \
        --distribution=bookworm --mirror="${DEBIAN_MIRROR:-http://deb.debian.org/debian} main" \
        --no-eatmydata --bindmount="$PREVIOUS" --extra-repo="deb [trusted=yes] file:$PREVIOUS ./" \
        --ignore-regex="$systemd" --log-file="$log" "${files[@]}" >/dev/null 2>&1 ||
        die 'piuparts found something; see build/packages/piuparts.log'
    grep -F ' PASS: ' "$log" || die 'piuparts did not run to its end'
}

check_autopkgtest() {
    local files output="$PACKAGES/autopkgtest" status=0
    make_bare_root
    rm -rf "$output"
    mapfile -t files < <(packages)
    # The copy of the root is not needed afterwards, and its processes end with it.
    run in_copy autopkgtest --ignore-restrictions=breaks-testbed,isolation-container \
        --output-dir="$output" "${files[@]}" "$PACKAGES/tallyra_$VERSION.dsc" \
        -- chroot "$COPY/root" >"$PACKAGES/autopkgtest.log" 2>&1 || status=$?
    cat "$output/summary" || true
    ((status == 0)) || die 'a test failed or was skipped; see build/packages/autopkgtest.log'
}
