// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Test.h"

#include <regex>

using testing::HasSubstr;

namespace {

std::string Output(const std::string& command) {
    std::string output;
    FILE* pPipe = popen(command.c_str(), "r");
    std::array<char, 4096> part;
    while (fgets(part.data(), part.size(), pPipe) != nullptr) {
        output += part.data();
    }
    pclose(pPipe);
    return output;
}

/// @return the symbols that nm lists, without their versions
std::set<std::string> Symbols(const std::string& kind) {
    std::istringstream lines(Output("nm -D " + kind + " " LIBTALLYRA));
    std::set<std::string> symbols;
    for (std::string line; std::getline(lines, line);) {
        const std::string name = line.substr(line.rfind(' ') + 1);
        symbols.insert(name.substr(0, name.find('@')));
    }
    return symbols;
}

TEST(Symbols, OnlyThoseOfTheMapAreExported) {
    std::ifstream map(SYMBOL_MAP);
    std::set<std::string> expected{"TALLYRA_1.2"};
    const std::regex symbol("^ +(_Z[A-Za-z0-9_]+);$");
    for (std::string line; std::getline(map, line);) {
        if (std::smatch match; std::regex_match(line, match, symbol)) {
            expected.insert(match[1]);
        }
    }
    EXPECT_EQ(expected.size(), 26U);
    EXPECT_EQ(Symbols("--defined-only"), expected);
}

TEST(Symbols, SonameHasVersionOne) {
    EXPECT_THAT(Output("readelf -d " LIBTALLYRA), HasSubstr("[libtallyra.so.1]"));
}

}  // namespace
