// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Program.h"

#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <sstream>
#include <stdexcept>

namespace {

// The shell opens the files and then becomes the program.
std::vector<std::string> Redirected(const std::vector<std::string>& arguments,
                                    const CTemporaryFolder& folder, const std::string& output) {
    const std::string path = folder.Path();
    std::vector<std::string> all = {"sh",
                                    "-c",
                                    R"(in="$1" out="$2" err="$3"; shift 3
                                       exec "$@" <"$in" >"$out" 2>"$err")",
                                    "sh",
                                    path + "/in",
                                    output.empty() ? path + "/out" : output,
                                    path + "/err"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
}

[[noreturn]] void BecomeCommand(std::vector<std::string> arguments) {
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
}

// A terminal whose other end is gone gives an error instead of an end.
std::string ReadTerminal(int fd) {
    std::string text;
    std::array<char, 4096> buffer;
    pollfd waited = {fd, POLLIN, 0};
    while (poll(&waited, 1, static_cast<int>(std::chrono::milliseconds(kPatience).count())) > 0) {
        const ssize_t size = read(fd, buffer.data(), buffer.size());
        if (size <= 0) {
            break;
        }
        text.append(buffer.data(), static_cast<std::size_t>(size));
    }
    return text;
}

}  // namespace

CProgram::CProgram(const std::vector<std::string>& arguments, const std::string& input,
                   const std::string& output) {
    m_Folder.Write("in", input);
    m_Child.emplace(Redirected(arguments, m_Folder, output));
}

std::string CProgram::Out() const {
    return ReadFile(m_Folder.Path() / "out");
}

bool CProgram::Prints(const std::string& text) const {
    return Eventually([&] { return Out().find(text) != std::string::npos; });
}

Result CProgram::Finish() {
    const auto code = m_Child->WaitForExit(kPatience);
    m_Child->Kill();
    return {code.value_or(-1), Out(), ReadFile(m_Folder.Path() / "err")};
}

Result RunProgram(const std::vector<std::string>& arguments, const std::string& input,
                  const std::string& output) {
    return CProgram(arguments, input, output).Finish();
}

std::string RunOnTerminal(const std::vector<std::string>& arguments) {
    int fd = -1;
    const pid_t pid = forkpty(&fd, nullptr, nullptr, nullptr);
    if (pid < 0) {
        throw std::runtime_error("no terminal can be made");
    }
    if (pid == 0) {
        BecomeCommand(arguments);
    }
    std::string text = ReadTerminal(fd);
    close(fd);
    waitpid(pid, nullptr, 0);
    return text;
}

std::vector<std::string> LinesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}
