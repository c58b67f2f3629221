// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Child.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <system_error>

namespace {

// All fit into a pipe, so the child does not block.
constexpr std::size_t kMostValues = 500;

int MeasureInChild(const std::function<std::vector<double>()>& measure, int fd) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    try {
        const std::vector<double> values = measure();
        const auto bytes = static_cast<ssize_t>(values.size() * sizeof(double));
        return values.size() <= kMostValues &&
                       write(fd, values.data(), values.size() * sizeof(double)) == bytes
                   ? 0
                   : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}

}  // namespace

CChild::CChild(const std::function<std::vector<double>()>& measure) {
    std::array<int, 2> fds{};
    if (pipe2(fds.data(), O_CLOEXEC) != 0 || (m_nPid = fork()) < 0) {
        throw std::system_error(errno, std::generic_category(), "cannot make a child");
    }
    if (m_nPid == 0) {
        _exit(MeasureInChild(measure, fds[1]));
    }
    close(fds[1]);
    m_nFd = fds[0];
}

CChild::~CChild() {
    if (m_nPid > 0) {
        kill(m_nPid, SIGKILL);
        waitpid(m_nPid, nullptr, 0);
    }
    close(m_nFd);
}

std::vector<double> CChild::Result() {
    std::vector<double> values(kMostValues);
    int status = 0;
    waitpid(m_nPid, &status, 0);
    m_nPid = -1;
    const ssize_t bytes = read(m_nFd, values.data(), values.size() * sizeof(double));
    if (status != 0 || bytes <= 0) {
        throw std::runtime_error("a measurement in a process of its own failed");
    }
    values.resize(static_cast<std::size_t>(bytes) / sizeof(double));
    return values;
}
