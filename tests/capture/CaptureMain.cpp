// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-capture": writes to a file every message that fixed sessions send. The
// sessions move the clock, so the bytes are the same in every run and on every machine of the same
// byte order.

#include "Driver.h"
#include "TYMediaData.h"

#include <array>
#include <cstdio>
#include <fstream>
#include <set>
#include <stdexcept>

namespace {

/// The events of players and those that the library derives.
constexpr std::array kCodes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 20, 21, 22, 202, 203, 204};
constexpr std::array kFunctions{"Kick", "GetPolicyInfo", "SendData"};

// Incomplete captures of two builds would be equal too.
void RequireAll(CFakeBus& bus) {
    std::set<int> codes;
    for (const CFakeBus::Call& call : bus.Calls("SendData")) {
        for (const CFakeBus::Argument& argument : call.arguments) {
            if (const auto* pImage = std::get_if<std::vector<char>>(&argument)) {
                codes.insert(static_cast<unsigned char>(pImage->at(offsetof(TYMediaData, event))));
            }
        }
    }
    for (const int code : kCodes) {
        if (!codes.contains(code)) {
            throw std::runtime_error("no record of event " + std::to_string(code));
        }
    }
    for (const char* pFunction : kFunctions) {
        if (bus.Calls(pFunction).empty()) {
            throw std::runtime_error(std::string("no call of ") + pFunction);
        }
    }
}

void Capture(const char* pPath) {
    CFakeBus bus;
    PlaySessions(bus);
    RequireAll(bus);
    std::ofstream file(pPath, std::ios::binary | std::ios::trunc);
    for (const CFakeBus::Call& call : bus.Calls()) {
        file << call.bytes;
    }
    file.close();
    if (!file) {
        throw std::runtime_error(std::string("cannot write ") + pPath);
    }
    std::printf("%zu messages\n", bus.Calls().size());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("usage: tallyra-capture FILE\n", stderr);
        return 2;
    }
    try {
        Capture(argv[1]);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tallyra-capture: %s\n", error.what());
        return 1;
    }
    return 0;
}
