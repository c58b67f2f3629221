// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Program.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::IsSupersetOf;
using testing::UnorderedElementsAreArray;

namespace {

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
Words OptionsOf(Words command) {
    command.insert(command.begin(), TALLYRA_COMMAND);
    command.emplace_back("--help");
    Words options;
    for (const std::string& line : LinesOf(RunProgram(command).out)) {
        const std::size_t at = line.starts_with("  --") ? 2 : line.find(",--") + 1;
        if (at != 0 && line.starts_with("  -")) {
            options.push_back(line.substr(at, line.find_first_of(" =", at) - at));
        }
    }
    return options;
}

TEST(Completion, OffersCommandsOptionsAndValues) {
    const struct {
        Words typed;
        Words offered;
    } cases[] = {
        {{""}, {"records", "playbacks", "show", "stats", "decode", "policy", "export"}},
        {{"pla"}, {"playbacks"}},
        {{"policy", ""}, {"list", "set", "unset"}},
        {{"policy", "u"}, {"unset"}},
        {{"records", "--format", ""}, {"table", "json", "csv"}},
        {{"export", "--format", ""}, {"jsonl", "csv"}},
        {{"records", "--format", "=", "j"}, {"json"}},
        {{"records", "--code", "BUFFERING_S"}, {"BUFFERING_START"}},
        {{"records", "--since", ""}, {""}},
        {{"show", "records", "--f"}, {"--format"}},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(testing::PrintToString(one.typed));
        EXPECT_THAT(Tallyra(one.typed), UnorderedElementsAreArray(one.offered));
    }
    EXPECT_THAT(Tallyra({"records", "--limit", "5", "--fo"}),
                IsSupersetOf({"--follow", "--format"}));
}

TEST(Completion, OffersTheOptionsOfEachCommand) {
    for (const Words& command : std::vector<Words>{{},
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
        SCOPED_TRACE(testing::PrintToString(command));
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
