// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Program.h"

#include <gmock/gmock.h>

#include <ostream>
#include <regex>
#include <set>
#include <string>

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

// All commands' help in one.
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

struct Document {
    const char* pName;
    const char* pPage;
    const char* pProgram;
};

void PrintTo(const Document& document, std::ostream* pOut) {
    *pOut << document.pName;
}

class CManPageTest : public testing::TestWithParam<Document> {
  protected:
    void SetUp() override {
        if (!IsInstalled("groff")) {
            GTEST_SKIP() << "groff is not installed";
        }
        m_Page = RunProgram({"groff", "-ww", "-man", "-Tutf8", "-P-cbou",
                             PACKAGING + std::string(GetParam().pPage)});
    }
    Result m_Page;
};

TEST_P(CManPageTest, IsSetWithoutWarning) {
    EXPECT_EQ(m_Page.code, 0);
    EXPECT_EQ(m_Page.err, "");
    EXPECT_GT(m_Page.out.size(), 1000U);
}

TEST_P(CManPageTest, ExplainsEveryOptionAndNoOther) {
    // Hyphens of options are those that can be typed.
    EXPECT_EQ(OptionsIn(m_Page.out), OptionsIn(HelpOf(GetParam().pProgram)));
}

INSTANTIATE_TEST_SUITE_P(Of, CManPageTest,
                         testing::Values(Document{"command", "/man/tallyra.1", TALLYRA_COMMAND},
                                         Document{"service", "/man/tallyra-service.8",
                                                  TALLYRA_SERVICE}),
                         [](const auto& of) { return std::string(of.param.pName); });

TEST(ManPage, OfTheCommandNamesEveryCommand) {
    const std::string page = ReadFile(PACKAGING "/man/tallyra.1");
    for (const std::string& command :
         Matches(RunProgram({TALLYRA_COMMAND, "--help"}).out, R"(\n  ([a-z]+) +[A-Z])")) {
        EXPECT_THAT(page, testing::HasSubstr("\n.B tallyra " + command)) << command;
    }
}

TEST(Unit, ExposesNextToNothing) {
    if (!IsInstalled("systemd-analyze")) {
        GTEST_SKIP() << "systemd-analyze is not installed";
    }
    const std::string unit = PACKAGING_BUILT "/tallyra-service.service";
    // In tenths: what few services reach, with room for what other versions count.
    const Result result =
        RunProgram({"systemd-analyze", "security", "--offline=true", "--threshold=10", unit});
    EXPECT_EQ(result.code, 0) << result.out << result.err;
}

}  // namespace
