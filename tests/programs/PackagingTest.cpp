// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Program.h"
#include "Test.h"

#include <regex>

using testing::IsSupersetOf;
using testing::UnorderedElementsAreArray;

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

using Words = std::vector<std::string>;

// Presses Tab behind the last word. Arguments: the folder, the program, and the words.
constexpr const char* kPressTab = R"sh(
source "$0/$1"
shift
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
"$(complete -p "$1" | sed 's/.*-F \([^ ]*\).*/\1/')"
printf '%s\n' "${COMPREPLY[@]}"
)sh";

// Completes in a bash without any other configuration.
Words Complete(const std::string& program, Words words) {
    words.insert(words.begin(),
                 {"bash", "--norc", "-uc", kPressTab, PACKAGING "/completions", program, program});
    const Result result = RunProgram(words);
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.err, "");
    return LinesOf(result.out);
}

Words Tallyra(Words words) {
    return Complete("tallyra", std::move(words));
}

// The options in the command's own help.
std::set<std::string> OptionsOf(Words command) {
    command.insert(command.begin(), TALLYRA_COMMAND);
    command.emplace_back("--help");
    return Matches(RunProgram(command).out, R"(\n  (?:-\w,)?(--[a-z-]+))");
}

const struct {
    Words typed;
    Words offered;
} kCompletions[] = {
    {{""},
     {"records", "playbacks", "show", "kpi", "report", "stats", "status", "check", "decode",
      "policy", "export", "forget"}},
    {{"pla"}, {"playbacks"}},
    {{"policy", ""}, {"list", "set", "unset", "bind", "unbind"}},
    {{"policy", "u"}, {"unset", "unbind"}},
    {{"records", "--format", ""}, {"table", "json", "csv"}},
    {{"export", "--format", ""}, {"jsonl", "csv"}},
    {{"records", "--format", "=", "j"}, {"json"}},
    {{"records", "--code", "BUFFERING_S"}, {"BUFFERING_START"}},
    {{"records", "--since", ""}, {""}},
    {{"kpi", "--by", "v"}, {"version"}},
    {{"kpi", "--format", "jsonl"}, {"jsonl"}},
    {{"show", "records", "--f"}, {"--format"}},
};

TEST(Completion, OffersCommandsOptionsAndValues) {
    for (const auto& one : kCompletions) {
        SCOPED_TRACE(testing::PrintToString(one.typed));
        EXPECT_THAT(Tallyra(one.typed), UnorderedElementsAreArray(one.offered));
    }
    EXPECT_THAT(Tallyra({"records", "--limit", "5", "--fo"}),
                IsSupersetOf({"--follow", "--format"}));
}

TEST(Completion, OffersTheOptionsOfEachCommand) {
    for (const char* pCommand :
         {"", "records", "playbacks", "show", "kpi", "report", "stats", "status", "check", "decode",
          "policy", "policy list", "policy set", "policy unset", "policy bind", "policy unbind",
          "export", "forget"}) {
        SCOPED_TRACE(pCommand);
        std::istringstream text(pCommand);
        const Words command(std::istream_iterator<std::string>(text), {});
        Words words = command;
        words.emplace_back("-");
        const auto options = OptionsOf(command);
        ASSERT_FALSE(options.empty());
        EXPECT_THAT(Tallyra(words), UnorderedElementsAreArray(options));
    }
}

TEST(Completion, OffersFiles) {
    const CTemporaryFolder folder;
    folder.Write("store.db", "");
    const std::string begin = folder.Path() / "st";
    for (const Words& words : std::vector<Words>{
             {"records", "--db", begin}, {"export", "--output", begin}, {"decode", begin}}) {
        EXPECT_THAT(Tallyra(words), testing::ElementsAre(folder.Path() / "store.db"));
    }
}

TEST(Completion, OffersTheServicesOptions) {
    EXPECT_THAT(Complete("tallyra-service", {"--max-"}),
                testing::UnorderedElementsAre("--max-age", "--max-size"));
    EXPECT_THAT(Complete("tallyra-service", {"--db", ":m"}), testing::Contains(":memory:"));
}

}  // namespace
