// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Program.h"

#include <gmock/gmock.h>

#include <sstream>

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsSupersetOf;
using testing::UnorderedElementsAre;

// Presses Tab behind the last word. Arguments: the folder, the program, and the words.
constexpr const char* kPressTab = R"sh(
source "$0/$1"
shift
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
"$(complete -p "$1" | sed 's/.*-F \([^ ]*\).*/\1/')"
printf '%s\n' "${COMPREPLY[@]}"
)sh";

// Completes in a bash that has read nothing else.
std::vector<std::string> Complete(const std::string& program, std::vector<std::string> words) {
    words.insert(words.begin(),
                 {"bash", "--norc", "-uc", kPressTab, COMPLETIONS, program, program});
    const Result result = RunProgram(words);
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.err, "");
    return LinesOf(result.out);
}

std::vector<std::string> Tallyra(std::vector<std::string> words) {
    return Complete("tallyra", std::move(words));
}

// The options that the program itself explains.
std::vector<std::string> OptionsOf(std::vector<std::string> command) {
    command.insert(command.begin(), TALLYRA_COMMAND);
    command.emplace_back("--help");
    std::vector<std::string> options;
    for (const std::string& line : LinesOf(RunProgram(command).out)) {
        const std::size_t at = line.rfind("  --", 0) == 0 ? 2 : line.find(",--") + 1;
        if (at != 0 && line.rfind("  -", 0) == 0) {
            options.push_back(line.substr(at, line.find_first_of(" =", at) - at));
        }
    }
    return options;
}

TEST(Completion, OffersCommands) {
    EXPECT_THAT(Tallyra({""}), UnorderedElementsAre("records", "playbacks", "show", "stats",
                                                    "decode", "policy", "export"));
    EXPECT_THAT(Tallyra({"pla"}), ElementsAre("playbacks"));
    EXPECT_THAT(Tallyra({"policy", ""}), UnorderedElementsAre("list", "set", "unset"));
    EXPECT_THAT(Tallyra({"policy", "u"}), ElementsAre("unset"));
}

TEST(Completion, OffersTheOptionsThatACommandHas) {
    for (const std::vector<std::string>& command :
         std::vector<std::vector<std::string>>{{},
                                               {"records"},
                                               {"playbacks"},
                                               {"show"},
                                               {"stats"},
                                               {"decode"},
                                               {"policy"},
                                               {"policy", "list"},
                                               {"policy", "set"},
                                               {"policy", "unset"},
                                               {"export"}}) {
        std::vector<std::string> words = command;
        words.emplace_back("-");
        const auto options = OptionsOf(command);
        ASSERT_FALSE(options.empty());
        EXPECT_THAT(Tallyra(words), testing::UnorderedElementsAreArray(options));
    }
}

TEST(Completion, OffersWhatAnOptionTakes) {
    EXPECT_THAT(Tallyra({"records", "--format", ""}), UnorderedElementsAre("table", "json", "csv"));
    EXPECT_THAT(Tallyra({"export", "--format", ""}), UnorderedElementsAre("jsonl", "csv"));
    EXPECT_THAT(Tallyra({"records", "--format", "=", "j"}), ElementsAre("json"));
    EXPECT_THAT(Tallyra({"records", "--code", "BUFFERING_S"}), ElementsAre("BUFFERING_START"));
    EXPECT_THAT(Tallyra({"records", "--since", ""}), ElementsAre(""));
}

TEST(Completion, OffersFiles) {
    const CTemporaryFolder folder;
    folder.Write("store.db", "");
    const std::string begin = folder.Path() / "st";
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {"records", "--db", begin}, {"export", "--output", begin}, {"decode", begin}}) {
        EXPECT_THAT(Tallyra(words), ElementsAre(folder.Path() / "store.db"));
    }
}

TEST(Completion, KnowsACommandBehindOtherOptions) {
    EXPECT_THAT(Tallyra({"records", "--limit", "5", "--fo"}),
                IsSupersetOf({"--follow", "--format"}));
    EXPECT_THAT(Tallyra({"show", "records", "--f"}), ElementsAre("--format"));
}

TEST(Completion, OffersTheServicesOptions) {
    EXPECT_THAT(Complete("tallyra-service", {"--max-"}),
                UnorderedElementsAre("--max-age", "--max-size"));
    EXPECT_THAT(Complete("tallyra-service", {"--db", ":m"}), Contains(":memory:"));
}

}  // namespace
