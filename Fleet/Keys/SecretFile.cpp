// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "SecretFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace {

[[noreturn]] void Fail(const std::filesystem::path& path) {
    throw std::system_error(errno, std::generic_category(), path);
}

void WriteAll(int fd, const std::string& text, const std::filesystem::path& path) {
    for (std::size_t at = 0; at < text.size();) {
        const ssize_t written = write(fd, text.data() + at, text.size() - at);
        if (written < 0) {
            Fail(path);
        }
        at += static_cast<std::size_t>(written);
    }
}

}  // namespace

void ReplaceFile(const std::filesystem::path& path, const std::string& text, unsigned mode) {
    std::string temporary = path.string() + ".XXXXXX";
    const int fd = mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) {
        Fail(path);
    }
    try {
        WriteAll(fd, text, path);
        if (fchmod(fd, mode) != 0 || fsync(fd) != 0 ||
            std::rename(temporary.c_str(), path.c_str()) != 0) {
            Fail(path);
        }
    } catch (...) {
        unlink(temporary.c_str());
        close(fd);
        throw;
    }
    close(fd);
}

std::string ReadWholeFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (!file) {
        throw std::runtime_error("cannot read " + path.string());
    }
    return text;
}
