# shellcheck shell=bash
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

# Every Debian package that building, showing and testing the project needs. This is the only list.

BUILD_PACKAGES=(
    g++               # the compiler that packages are built with
    cmake             # 3.25 or later, for its presets
    ninja-build       # the presets' generator
    pkg-config        # how CMake finds the libraries below
    libdbus-1-dev     # the library's own bus client
    libglib2.0-dev    # the send timer, the settings file; GDBus in the receiver
    libsystemd-dev    # logsvc writes to the journal
    libappstream-dev  # appcat's application metadata
    libnl-3-dev       # netlink sockets, for the next two
    libnl-route-3-dev # connection: default routes and their links
    libnl-genl-3-dev  # wifi_manager: nl80211
    libsqlite3-dev    # the collection service's store
    libcli11-dev      # arguments of the service and of its command
    nlohmann-json3-dev # the command's JSON
)

DEMO_PACKAGES=(
    dbus-daemon # the private bus of the demo, the tests and the benchmarks
)

TEST_PACKAGES=(
    clang              # the second compiler, with its thread-safety analysis
    libclang-rt-14-dev # what -fsanitize links
    llvm               # llvm-symbolizer: names in the sanitizers' stack traces
    clang-tidy         # static analysis, and run-clang-tidy
    clang-format       # format check
    shellcheck         # static analysis of these scripts
    ccache             # speeds up builds after a change of branch
    libgtest-dev       # the test framework
    libgmock-dev       # its matchers and fakes
    dbus-broker        # the other bus implementation that the suite passes on
    socat              # stands in for the journal that dbus-broker logs to
    iproute2           # tests set up networks in namespaces of their own
    locales            # sources of locales: a test makes one with a decimal comma
    groff-base         # tests format the manual pages
    systemd            # systemd-analyze: a test verifies the unit file
    git                # lists the files that are checked
)

BENCH_PACKAGES=(
    libspdlog-dev # one of the ways to report an event that the library is compared with
    gnuplot-nox   # the plots
)

# For script/check 32bit, besides BUILD_PACKAGES.
NARROW_PACKAGES=(
    libgtest-dev
    libgmock-dev
    debootstrap # makes the root that holds all of the following
)

# For that root: tools,
NARROW_ROOT_PACKAGES=(
    cmake
    ninja-build
    pkg-config
    ccache
    g++-i686-linux-gnu      # compiles for i386
    g++-arm-linux-gnueabihf # compiles for armhf
    qemu-user               # runs what was compiled
)

# and libraries for each of the 32-bit architectures.
NARROW_LIBRARY_PACKAGES=(
    libdbus-1-dev
    libglib2.0-dev
    libsystemd-dev
    libappstream-dev
    libnl-3-dev
    libnl-route-3-dev
    libnl-genl-3-dev
    libgtest-dev
    libgmock-dev
)

# packages_for PURPOSE: one a line; fails for an unknown purpose
packages_for() {
    local packages=("${BUILD_PACKAGES[@]}")
    case "$1" in
        build) ;;
        demo) packages+=("${DEMO_PACKAGES[@]}") ;;
        test) packages+=("${DEMO_PACKAGES[@]}" "${TEST_PACKAGES[@]}") ;;
        bench) packages+=("${DEMO_PACKAGES[@]}" "${BENCH_PACKAGES[@]}") ;;
        memory) packages+=("${DEMO_PACKAGES[@]}" "${TEST_PACKAGES[@]}" valgrind) ;;
        soak) packages+=("${DEMO_PACKAGES[@]}" "${TEST_PACKAGES[@]}" gnuplot-nox) ;;
        32bit) packages+=("${NARROW_PACKAGES[@]}") ;;
        32bit-root)
            packages=("${NARROW_ROOT_PACKAGES[@]}" "${NARROW_LIBRARY_PACKAGES[@]/%/:i386}"
                "${NARROW_LIBRARY_PACKAGES[@]/%/:armhf}")
            ;;
        *) return 1 ;;
    esac
    printf '%s\n' "${packages[@]}"
}

# missing_packages PACKAGE...: those that are not installed, one a line
missing_packages() {
    # dpkg-query complains about each package that it does not know, and lists the others.
    # shellcheck disable=SC2016 # the ${...} are dpkg-query's
    comm -23 <(printf '%s\n' "$@" | sort -u) \
        <(dpkg-query -W -f '${db:Status-Status} ${Package}\n' "$@" 2>/dev/null |
            sed -n 's/^installed //p' | sort -u)
}
