// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CommandFixture.h"

#include <regex>

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsSupersetOf;
using testing::Not;
using testing::UnorderedElementsAre;
using testing::UnorderedElementsAreArray;
using Words = std::vector<std::string>;

// Each script presses Tab behind the last word. Arguments: the folder of the scripts for bash, the
// file of the script for the others, and the words.
constexpr const char* kInBash = R"sh(
source "$0/$(basename "$1")"
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
"$(complete -p "$(basename "$1")" | sed 's/.*-F \([^ ]*\).*/\1/')"
printf '%s\n' "${COMPREPLY[@]}"
)sh";

// Stands in for the functions of the completion system that the scripts call.
constexpr const char* kInZsh = R"sh(
script="$0"
words=("$@") CURRENT=$#
_describe() { print -rl -- "${(@)${(P)2}}" }
_files() { print -r -- files }
_arguments() { print -rl -- "$@" }
source "$script"
)sh";

constexpr const char* kInFish = R"sh(
source $argv[1]
fish_add_path --path (dirname $argv[2])
complete -C "$argv[3]"
)sh";

bool IsInstalled(const std::string& program) {
    return RunProgram({"sh", "-c", "command -v \"$0\"", program}).code == 0;
}

Words LinesFrom(const Words& command) {
    const Result result = RunProgram(command);
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.err, "");
    return LinesOf(result.out);
}

// Completes in a bash without any other configuration.
Words Complete(const std::string& program, Words words) {
    words.insert(words.begin(),
                 {"bash", "--norc", "-uc", kInBash, PACKAGING "/completions", program});
    return LinesFrom(words);
}

Words Tallyra(Words words) {
    return Complete(TALLYRA_COMMAND, std::move(words));
}

// The options in the help of a program or command.
std::set<std::string> OptionsOf(Words command) {
    command.emplace_back("--help");
    const std::string text = RunProgram(command).out;
    const std::regex pattern(R"(\n  (?:-\w,)?(--[a-z-]+))");
    std::set<std::string> found;
    for (std::sregex_iterator at(text.begin(), text.end(), pattern), end; at != end; ++at) {
        found.insert(at->str(1));
    }
    return found;
}

Words InZsh(const std::string& script, Words words) {
    words.insert(words.begin(), {"zsh", "-fc", kInZsh, PACKAGING "/completions/" + script});
    return LinesFrom(words);
}

Words InFish(const CTemporaryFolder& home, const std::string& program, const std::string& line) {
    const std::string name = std::filesystem::path(program).filename();
    return LinesFrom({"env", "HOME=" + home.Path().string(), "fish", "--no-config", "-c", kInFish,
                      PACKAGING "/completions/" + name + ".fish", program, line});
}

// The options that lines begin with, behind what zsh's _arguments reads before them.
std::set<std::string> OptionsIn(const Words& lines) {
    const std::regex pattern(R"((?:\([^)]*\)|\*)?(--[a-z-]+).*)");
    std::set<std::string> found;
    for (const std::string& line : lines) {
        std::smatch match;
        if (std::regex_match(line, match, pattern)) {
            found.insert(match.str(1));
        }
    }
    return found;
}

const struct {
    Words typed;
    Words offered;
} kCompletions[] = {
    {{"pla"}, {"playbacks"}},
    {{"policy", ""}, {"list", "set", "unset", "bind", "unbind"}},
    {{"policy", "u"}, {"unset", "unbind"}},
    {{"records", "--format", ""}, {"table", "json", "jsonl", "csv"}},
    {{"records", "--format", "=", "js"}, {"json", "jsonl"}},
    {{"records", "--format="},
     {"--format=table", "--format=json", "--format=jsonl", "--format=csv"}},
    {{"records", "--code", "BUFFERING_S"}, {"BUFFERING_START"}},
    {{"records", "--sort", "arr"}, {"arrival"}},
    {{"playbacks", "--end", "sto"}, {"stopped"}},
    {{"playbacks", "--end", "com"}, {"completed"}},
    {{"records", "--network", "wi"}, {"wifi"}},
    {{"records", "--since", ""}, {""}},
    {{"show", "records", "--form"}, {"--format"}},
};

TEST(Completion, OffersCommandsOptionsAndValues) {
    for (const auto& one : kCompletions) {
        SCOPED_TRACE(testing::PrintToString(one.typed));
        EXPECT_THAT(Tallyra(one.typed), UnorderedElementsAreArray(one.offered));
    }
    EXPECT_THAT(Tallyra({""}), IsSupersetOf({"records", "playbacks", "show", "watch", "policy"}));
    EXPECT_THAT(Tallyra({""}), Not(Contains("complete")));
    EXPECT_THAT(Tallyra({"records", "--limit", "5", "--fo"}),
                IsSupersetOf({"--follow", "--format"}));
}

TEST(Completion, OffersTheOptionsOfEachCommand) {
    for (const char* pCommand : {"", "records", "policy", "policy bind", "export", "forget"}) {
        SCOPED_TRACE(pCommand);
        std::istringstream text(pCommand);
        const Words command(std::istream_iterator<std::string>(text), {});
        Words words = command;
        words.emplace_back("--");
        Words program = command;
        program.insert(program.begin(), TALLYRA_COMMAND);
        const auto options = OptionsOf(program);
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
        EXPECT_THAT(Tallyra(words), ElementsAre(folder.Path() / "store.db"));
    }
}

// Those behind tallyra-service are the fleet's.
const Words kDaemons = {DAEMONS};

TEST(Completion, OffersTheOptionsOfTheOtherPrograms) {
    for (const std::string& name : kDaemons) {
        SCOPED_TRACE(name);
        const std::string program = PROGRAMS + name;
        EXPECT_THAT(Complete(program, {"--"}), UnorderedElementsAreArray(OptionsOf({program})));
        EXPECT_THAT(Complete(program, {"--db", "/et"}), Contains("/etc"));
    }
}

TEST(Completion, ZshAndFishOfferTheOptionsOfTheFleet) {
    const Words fleet(kDaemons.begin() + 1, kDaemons.end());
    if (fleet.empty() || !IsInstalled("zsh") || !IsInstalled("fish")) {
        GTEST_SKIP() << "the fleet is not built, or zsh or fish is not installed";
    }
    const CTemporaryFolder home;
    for (const std::string& name : fleet) {
        SCOPED_TRACE(name);
        const std::string program = PROGRAMS + name;
        const auto options = OptionsOf({program});
        EXPECT_EQ(OptionsIn(InZsh("_tallyra-fleet", {program, "--"})), options);
        EXPECT_EQ(OptionsIn(InFish(home, program, name + " --")), options);
        EXPECT_THAT(InFish(home, program, name + " --key /et"), Contains("/etc/"));
    }
}

TEST(Completion, OffersTheServicesOptions) {
    EXPECT_THAT(Complete("tallyra-service", {"--max-"}),
                UnorderedElementsAre("--max-age", "--max-size"));
    EXPECT_THAT(Complete("tallyra-service", {"--db", ":m"}), Contains(":memory:"));
}

/// Completions from what a store holds.
class CompletionOf : public CCommandTest {
  protected:
    void SetUp() override {
        Store({.application = "org.example.tv", .playback = "111"}, {{0, TY_EVENT_START}});
        Store({.application = "org.example.radio", .playback = "222"}, {{0, TY_EVENT_START}});
    }
    Words Of(Words words) const {
        words.insert(words.begin() + 1, {"--db", Db()});
        return Tallyra(words);
    }
};

TEST_F(CompletionOf, AStoreOffersItsApplicationsAndPlaybacks) {
    EXPECT_THAT(Of({"records", "--application", "org.example.r"}),
                ElementsAre("org.example.radio"));
    EXPECT_THAT(Of({"records", "--playback", ""}), ElementsAre("222", "111"));
    EXPECT_THAT(Of({"show", "1"}), ElementsAre("111"));
    EXPECT_THAT(Tallyra({"policy", "bind", "--db", Db(), ""}),
                UnorderedElementsAre("org.example.tv", "org.example.radio"));
    EXPECT_EQ(Run({"complete", "applications"}).out, "org.example.radio\norg.example.tv\n");
}

TEST_F(CompletionOf, AStoreOffersNoTextThatAShellWouldRun) {
    for (const char* pText :
         {"$(reboot)", "a;reboot", "a b", "`x`", "--yes", "a\nb", "ü", "*", ":files"}) {
        Store({.application = pText, .playback = pText}, {{0, TY_EVENT_START}});
    }
    EXPECT_THAT(Of({"records", "--application", ""}),
                UnorderedElementsAre("org.example.tv", "org.example.radio"));
    EXPECT_THAT(Of({"show", ""}), UnorderedElementsAre("111", "222"));
}

TEST_F(CompletionOf, ASiteOffersItsCodes) {
    m_Folder.Write("codes.conf", "[errors]\n210=DRM_LICENCE_REFUSED\n");
    EXPECT_THAT(Tallyra({"records", "--codes", File("codes.conf"), "--code", "DRM"}),
                ElementsAre("DRM_LICENCE_REFUSED"));
}

TEST_F(CompletionOf, AMissingStoreIsSilent) {
    EXPECT_THAT(Tallyra({"records", "--db", "/nowhere.db", "--application", ""}), ElementsAre(""));
}

TEST_F(CompletionOf, ZshOffersTheSame) {
    if (!IsInstalled("zsh")) {
        GTEST_SKIP() << "zsh is not installed";
    }
    const auto press = [&](Words words) {
        words.insert(words.begin(), TALLYRA_COMMAND);
        return InZsh("_tallyra", words);
    };
    EXPECT_THAT(press({"pla"}), ElementsAre("playbacks:Print playbacks with their totals, newest "
                                            "first"));
    EXPECT_THAT(press({"show", "--db", Db(), "1"}), ElementsAre("111:org.example.tv"));
    EXPECT_THAT(press({"show", "--db", ""}), ElementsAre("files"));
    EXPECT_THAT(press({"records", "--since", ""}), ElementsAre(""));
}

TEST_F(CompletionOf, FishOffersTheSame) {
    if (!IsInstalled("fish")) {
        GTEST_SKIP() << "fish is not installed";
    }
    const auto press = [&](const std::string& line) {
        return InFish(m_Folder, TALLYRA_COMMAND, line);
    };
    EXPECT_THAT(press("tallyra pla"), ElementsAre("playbacks\tPrint playbacks with their totals, "
                                                  "newest first"));
    EXPECT_THAT(press("tallyra show --db " + Db() + " 1"), ElementsAre("111\torg.example.tv"));
    EXPECT_THAT(press("tallyra decode " + m_Folder.Path().string() + "/tallyra.d"),
                Contains(testing::HasSubstr("tallyra.db")));
    EXPECT_THAT(press("tallyra records --since "), ElementsAre());
}

}  // namespace
