# shellcheck shell=bash
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

# script/package: how the Debian packages are built, and the checks that need no root.

PACKAGES="$BUILD/packages"
# Always built in the same folder, so that the compiler cache helps: its name is in the options.
VERSION="$(sed -n '1s/.*(\(.*\)).*/\1/p' "$ROOT/packaging/debian/changelog")"
SOURCE="$PACKAGES/source/tallyra-$VERSION"

# copy_tree FOLDER: what a checkout has, with packaging/debian where Debian's tools look for it
copy_tree() {
    rm -rf "$1"
    mkdir -p "$1"
    project_files | (umask 022 && cd "$ROOT" && xargs -d '\n' cp --parents --no-dereference -t "$1")
    mv "$1/packaging/debian" "$1/debian"
}

# run_build LOG [COMMAND...]: in this folder; the command runs the build. With a base folder, ccache
# would put relative paths into the programs, which then depend on the caller's cache.
run_build() {
    local log="$1"
    shift
    DEB_BUILD_OPTIONS="parallel=$JOBS" run "$@" env -u CCACHE_BASEDIR \
        dpkg-buildpackage -us -uc >"$log" 2>&1 ||
        die "the build failed; see ${log#"$ROOT"/}"
}

build_packages() {
    rm -rf "$PACKAGES"
    copy_tree "$SOURCE"
    (cd "$SOURCE" && run_build "$PACKAGES/build.log")
    find "$PACKAGES/source" -maxdepth 1 -type f -exec mv -t "$PACKAGES" {} +
    (cd "$PACKAGES" && ls -1 ./*.deb)
}

# packages: all but those with debugging symbols, one a line
packages() {
    find "$PACKAGES" -maxdepth 1 -name '*.deb' ! -name '*-dbgsym_*' | sort
}

# extract_packages FOLDER
extract_packages() {
    local package
    rm -rf "$1"
    for package in $(packages); do
        dpkg-deb -x "$package" "$1"
    done
}

# check_hardening FILE: each answer of hardening-check is yes, or says that the file has nothing to
# protect. "Only unprotected" is accepted: the compiler knew the size of no buffer, so it could not
# use a checked function. blhc has seen that each command asks for these.
check_hardening() {
    local answers
    answers="$(hardening-check --nocfprotection "$1" || true)"
    printf '%s\n' "$answers"
    ! grep -Ev ':$|: yes|\(ignored\)|: unknown, no|: no, only unprotected' <<<"$answers" >&2 ||
        die "$1 is not hardened"
}

# The linker marks a program as protected only if all its objects are, and the C library's crti.o in
# Debian 12 is not. So this looks at the objects of the build.
check_control_flow() {
    local objects object
    [[ "$(dpkg --print-architecture)" == amd64 ]] || return 0
    mapfile -t objects < <(find "$SOURCE"/obj-* -name '*.o' ! -path '*/CompilerIdC*')
    ((${#objects[@]} > 0)) || die 'the build has left no objects'
    for object in "${objects[@]}"; do
        readelf -n "$object" 2>/dev/null | grep -q 'x86 feature: IBT, SHSTK' ||
            die "$object has no control-flow protection"
    done
    printf 'lint: %d objects have control-flow protection\n' "${#objects[@]}"
}

# Debian's compilers make position-independent programs by themselves, so blhc does not look for it;
# hardening-check does.
check_lint() {
    local files file installed="$PACKAGES/installed"
    run lintian --allow-root --fail-on=error,warning --display-info \
        "$PACKAGES/tallyra_${VERSION}_$(dpkg --print-architecture).changes" ||
        die 'lintian found something'
    run blhc --bindnow --arch="$(dpkg --print-architecture)" "$PACKAGES/build.log" ||
        die 'blhc found a command without hardening'
    extract_packages "$installed"
    mapfile -t files < <(find "$installed" -type f -print0 |
        xargs -0 file --separator '|' | sed -n 's/|.* ELF .*//p')
    ((${#files[@]} > 0)) || die 'no programs found in the packages'
    for file in "${files[@]}"; do
        check_hardening "$file"
    done >"$PACKAGES/hardening.log" ||
        die 'hardening-check found something; see build/packages/hardening.log'
    printf 'lint: %d programs and libraries are hardened\n' "${#files[@]}"
    check_control_flow
}

# Another build must not depend on where, when and under which settings it runs.
check_reproducible() {
    local again="$BUILD/again/a/longer/name" file different=0
    rm -rf "$BUILD/again"
    copy_tree "$again/${SOURCE##*/}"
    (
        cd "$again/${SOURCE##*/}" || exit
        umask 077
        export CCACHE_DISABLE=1 TZ=Pacific/Kiritimati LC_ALL=C LANG=tr_TR.UTF-8 HOME=/nonexistent
        run_build "$again/build.log" faketime -f '+400d'
    )
    for file in "$PACKAGES"/*.deb "$PACKAGES"/*.dsc "$PACKAGES"/*.tar.*; do
        cmp "$file" "$again/${file##*/}" || different=1
    done
    ((different == 0)) || die 'the packages differ; build/again has the others'
    printf 'reproducible: the source and %d packages are the same, byte for byte\n' \
        "$(find "$PACKAGES" -maxdepth 1 -name '*.deb' | wc -l)"
}
