# shellcheck shell=bash
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

# Every Debian package that building, showing and testing the project needs. This is the only list.

BUILD_PACKAGES=(
    g++              # the compiler that packages are built with
    cmake            # 3.25 or later, for its presets
    ninja-build      # the presets' generator
    pkg-config       # how CMake finds the libraries below
    libdbus-1-dev    # the library's own bus client
    libglib2.0-dev   # the send timer, the settings file; GDBus in the receiver
    libsystemd-dev   # logsvc's way to the journal
    libappstream-dev # appcat's application metadata
    libnl-3-dev      # netlink sockets, for the next two
    libnl-route-3-dev # connection: default routes and their links
    libnl-genl-3-dev # wifi_manager: nl80211
    libsqlite3-dev   # the collection service's store
    libcli11-dev     # the arguments of the service and of its command
    nlohmann-json3-dev # the command's JSON
)

DEMO_PACKAGES=(
    dbus-daemon # the private bus that the demo starts
)

TEST_PACKAGES=(
    clang              # the second compiler, with its thread-safety analysis
    libclang-rt-14-dev # what -fsanitize links
    llvm               # llvm-symbolizer: names in the sanitizers' stack traces
    clang-tidy         # static analysis
    clang-format       # format check
    shellcheck         # static analysis of these scripts
    ccache             # makes builds after a change of branch quick
    libgtest-dev       # the test framework
    libgmock-dev       # its matchers and fakes
    dbus-broker        # the other bus implementation that the suite passes on
    socat              # stands in for the journal that dbus-broker logs to
    iproute2           # tests give themselves networks, in namespaces of their own
    locales            # sources of locales: a test makes one with a decimal comma
    git                # lists the files that are checked
)

BENCH_PACKAGES=(
    libbenchmark-dev # times the single steps
    libspdlog-dev    # one of the ways to report an event that the library is compared with
    gnuplot-nox      # the plots
)

# What script/check-32bit needs on the machine besides BUILD_PACKAGES,
NARROW_PACKAGES=(
    libgtest-dev
    libgmock-dev
    debootstrap # makes the root that holds all of the following
)

# in that root for the machine,
NARROW_ROOT_PACKAGES=(
    cmake
    ninja-build
    pkg-config
    ccache
    g++-i686-linux-gnu      # compiles for i386
    g++-arm-linux-gnueabihf # compiles for armhf
    qemu-user               # runs what was compiled
)

# and in it for each of the 32-bit architectures.
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

MEMORY_PACKAGES=(
    valgrind # memcheck
)

SOAK_PACKAGES=(
    gnuplot-nox # draws what was measured
)

# packages_for build|demo|test|bench|memory|narrow|narrow-root|soak: one a line
packages_for() {
    case "$1" in
        memory) packages_for test && printf '%s\n' "${MEMORY_PACKAGES[@]}" ;;
        soak) packages_for test && printf '%s\n' "${SOAK_PACKAGES[@]}" ;;
        build) printf '%s\n' "${BUILD_PACKAGES[@]}" ;;
        demo) printf '%s\n' "${BUILD_PACKAGES[@]}" "${DEMO_PACKAGES[@]}" ;;
        bench) printf '%s\n' "${BUILD_PACKAGES[@]}" "${DEMO_PACKAGES[@]}" "${BENCH_PACKAGES[@]}" ;;
        test) printf '%s\n' "${BUILD_PACKAGES[@]}" "${DEMO_PACKAGES[@]}" "${TEST_PACKAGES[@]}" ;;
        narrow) printf '%s\n' "${BUILD_PACKAGES[@]}" "${NARROW_PACKAGES[@]}" ;;
        narrow-root)
            printf '%s\n' "${NARROW_ROOT_PACKAGES[@]}" "${NARROW_LIBRARY_PACKAGES[@]/%/:i386}" \
                "${NARROW_LIBRARY_PACKAGES[@]/%/:armhf}"
            ;;
    esac
}

# missing_packages PACKAGE...: those that are not installed, one a line
missing_packages() {
    # dpkg-query complains about each package that it never heard of, and lists the others.
    local installed
    # shellcheck disable=SC2016 # the ${...} are dpkg-query's
    installed="$(dpkg-query -W -f '${Package} ${db:Status-Status}\n' "$@" 2>/dev/null || true)"
    printf '%s\n' "$@" | awk -v installed="$installed" '
        BEGIN {
            n = split(installed, lines, "\n")
            for (i = 1; i <= n; i++) {
                split(lines[i], words, " ")
                if (words[2] == "installed") have[words[1]] = 1
            }
        }
        !($0 in have)'
}
