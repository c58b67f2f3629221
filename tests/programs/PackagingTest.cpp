// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Program.h"
#include "Test.h"

#include <regex>

namespace {

std::set<std::string> Matches(const std::string& text, const char* pPattern) {
    const std::regex pattern(pPattern);
    std::set<std::string> found;
    for (std::sregex_iterator at(text.begin(), text.end(), pattern), end; at != end; ++at) {
        found.insert(at->str(1));
    }
    return found;
}

std::set<std::string> OptionsIn(const std::string& text) {
    return Matches(text, R"((?:^|[^\w-])(--[a-z][a-z-]*))");
}

bool IsInstalled(const std::string& program) {
    return RunProgram({"sh", "-c", "command -v \"$0\"", program}).code == 0;
}

// The help of the program and of all its commands.
std::string HelpOf(const std::string& program) {
    std::string text = RunProgram({program, "--help"}).out;
    for (const std::string& command : Matches(text, R"(\n  ([a-z]+) +[A-Z])")) {
        const std::string help = RunProgram({program, command, "--help"}).out;
        text += help;
        for (const std::string& deeper : Matches(help, R"(\n  ([a-z]+) +[A-Z][a-z])")) {
            text += RunProgram({program, command, deeper, "--help"}).out;
        }
    }
    return text;
}

void ExpectPage(const std::string& page, const std::string& program) {
    const Result set = RunProgram({"groff", "-ww", "-man", "-Tutf8", "-P-cbou", page});
    EXPECT_EQ(set.code, 0);
    EXPECT_EQ(set.err, "");
    EXPECT_GT(set.out.size(), 1000U);
    EXPECT_EQ(OptionsIn(set.out), OptionsIn(HelpOf(program)));
}

TEST(ManPages, ExplainEveryOptionAndNoOther) {
    if (!IsInstalled("groff")) {
        GTEST_SKIP() << "groff is not installed";
    }
    ExpectPage(PACKAGING "/man/tallyra.1", TALLYRA_COMMAND);
    ExpectPage(PACKAGING "/man/tallyra-service.8", TALLYRA_SERVICE);
#ifdef TALLYRA_KEYS
    ExpectPage(PACKAGING "/man/tallyra-keys.1", TALLYRA_KEYS);
#endif
}

TEST(ManPages, NameEveryCommand) {
    const std::string page = ReadFile(PACKAGING "/man/tallyra.1");
    for (const std::string& command :
         Matches(RunProgram({TALLYRA_COMMAND, "--help"}).out, R"(\n  ([a-z]+) +[A-Z])")) {
        EXPECT_THAT(page, testing::HasSubstr("\n.B tallyra " + command)) << command;
    }
}

TEST(SystemdUnit, IsSandboxed) {
    if (!IsInstalled("systemd-analyze")) {
        GTEST_SKIP() << "systemd-analyze is not installed";
    }
    const std::string unit = PACKAGING_BUILT "/tallyra-service.service";
    // The exposure in tenths. Versions of systemd-analyze weigh settings differently.
    const Result result =
        RunProgram({"systemd-analyze", "security", "--offline=true", "--threshold=10", unit});
    EXPECT_EQ(result.code, 0) << result.out << result.err;
}

}  // namespace
