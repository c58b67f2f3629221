// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Program.h"

namespace {

constexpr int kUsage = 2;

const struct {
    const char* pArguments;
    const char* pError;
    const char* pHelp;  ///< the command whose help explains it
} kWrong[] = {
    {"", "a command is missing", "tallyra"},
    {"nonsense", "unknown command 'nonsense'", "tallyra"},
    {"playback", "unknown command 'playback'; did you mean 'playbacks'?", "tallyra"},
    {"exprot --output x", "unknown command 'exprot'; did you mean 'export'?", "tallyra"},
    {"rec", "unknown command 'rec'; did you mean 'records'?", "tallyra"},
    {"--nonsense", "unknown option '--nonsense'", "tallyra"},
    {"--db x records", "the option --db belongs behind the command", "tallyra records"},
    {"records unexpected", "unexpected argument 'unexpected'", "tallyra records"},
    {"records playbacks", "unexpected argument 'playbacks'", "tallyra records"},
    {"records --limti 5", "unknown option '--limti'; did you mean '--limit'?", "tallyra records"},
    {"records --limti=5", "unknown option '--limti'; did you mean '--limit'?", "tallyra records"},
    {"records -x", "unknown option '-x'", "tallyra records"},
    {"records --limit", "--limit needs a value", "tallyra records"},
    {"records --limit=", "--limit: '' is not a number that is not negative, nor -1 for all",
     "tallyra records"},
    {"records --limit many", "--limit: 'many' is not a number that is not negative, nor -1 for all",
     "tallyra records"},
    {"records --limit -2", "--limit: '-2' is not a number that is not negative, nor -1 for all",
     "tallyra records"},
    {"records --limit 0x10", "--limit: '0x10' is not a number that is not negative, nor -1 for all",
     "tallyra records"},
    {"records --limit 99999999999999999999",
     "--limit: '99999999999999999999' is not a number that is not negative, nor -1 for all",
     "tallyra records"},
    {"records --application= -n 1 x", "unexpected argument 'x'", "tallyra records"},
    {"records --since= -n1",
     "--since: not a time: ; times are written as 2026-11-21T07:30, 2026-11-21, today, 2h (ago) or "
     "@SECONDS",
     "tallyra records"},
    {"records --since @2 --until @1", "--until: @1 is before --since", "tallyra records"},
    {"kpi --until @1 --since @2", "--until: @1 is before --since", "tallyra kpi"},
    {"report --since @2 --until @1 -o x", "--until: @1 is before --since", "tallyra report"},
    {"report --output=", "--output: the name is empty", "tallyra report"},
    {"records --db=", "--db: the name is empty", "tallyra records"},
    {"help", "unknown command 'help'; did you mean '--help'?", "tallyra"},
    {"version", "unknown command 'version'; did you mean '--version'?", "tallyra"},
    {"complete",
     "unknown command 'complete' without words, applications, playbacks or events behind it",
     "tallyra"},
    {"records --since yesterdayish",
     "--since: not a time: yesterdayish; times are written as 2026-11-21T07:30, 2026-11-21, today, "
     "2h (ago) or @SECONDS",
     "tallyra records"},
    {"records --code 256", "--code: not an event: 256; codes are numbers from 0 to 255",
     "tallyra records"},
    {"records --code buffering_strat",
     "--code: not an event: buffering_strat; did you mean 'BUFFERING_START'?", "tallyra records"},
    {"records --code NOTHING", "--code: not an event: NOTHING", "tallyra records"},
    {"playbacks --application a --application b", "--application may be given only once",
     "tallyra playbacks"},
    {"records --raw --format json", "--format cannot be used with --raw", "tallyra records"},
    {"records --raw --follow", "--follow cannot be used with --raw", "tallyra records"},
    {"records --follow=7", "--follow takes no value", "tallyra records"},
    {"forget --all=1", "--all takes no value", "tallyra forget"},
    {"show", "an argument is missing: a playback or --last", "tallyra show"},
    {"show --bogus", "unknown option '--bogus'", "tallyra show"},
    {"policy", "a command is missing", "tallyra policy"},
    {"policy unbid a", "unknown command 'unbid'; did you mean 'unbind'?", "tallyra policy"},
    {"policy list set", "unexpected argument 'set'", "tallyra policy list"},
    {"policy set a", "an argument is missing: a value, --keep-queries or --no-keep-queries",
     "tallyra policy set"},
    {"policy set a perhaps", "value: 'perhaps' is not a number from -2147483648 to 2147483647",
     "tallyra policy set"},
    {"policy set a --keep-queries --no-keep-queries",
     "--keep-queries cannot be used with --no-keep-queries", "tallyra policy set"},
    {"policy bind a", "an argument is missing: uid", "tallyra policy bind"},
    {"policy bind a 4294967295", "uid: '4294967295' is not a number from 0 to 4294967294",
     "tallyra policy bind"},
    {"policy unbind", "an argument is missing: application", "tallyra policy unbind"},
    {"forget --uid root", "--uid: 'root' is not a number from -1 to 4294967294", "tallyra forget"},
    {"forget --before yesterdayish",
     "--before: not a time: yesterdayish; times are written as 2026-11-21T07:30, 2026-11-21, "
     "today, 2h (ago) or @SECONDS",
     "tallyra forget"},
    {"records --format 0", "--format: '0' is none of csv, json, jsonl, table", "tallyra records"},
    {"kpi --by 0",
     "--by: '0' is none of application, content-type, day, drm, hour, network, player, version",
     "tallyra kpi"},
    {"records --sort 1",
     "--sort: no column 1; one of id, arrival, time, uid, application, version, playback, player, "
     "network, event, code, param1, param2, title, url",
     "tallyra records"},
    {"playbacks --end 0",
     "--end: not a way to end: 0; one of stopped, playing, exited, failed, lost, start_failure, "
     "playback_failure, exit_before_start, completed",
     "tallyra playbacks"},
    {"watch --interval 0", "--interval: '0' is not a number from 1 to 3600", "tallyra watch"},
    {"export --mode 0888", "--mode: not permissions such as 0640: 0888", "tallyra export"},
    {"export --mode 1777", "--mode: not permissions such as 0640: 1777", "tallyra export"},
};

Result RunWith(const std::string& arguments) {
    std::istringstream text(arguments);
    std::vector<std::string> words(std::istream_iterator<std::string>(text), {});
    words.insert(words.begin(), TALLYRA_COMMAND);
    return RunProgram(words);
}

TEST(Usage, ErrorsSayWhatIsWrongAndWhereTheHelpIs) {
    for (const auto& one : kWrong) {
        SCOPED_TRACE(one.pArguments);
        const Result result = RunWith(one.pArguments);
        EXPECT_EQ(result.code, kUsage);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err,
                  "tallyra: " + std::string(one.pError) + "\nSee '" + one.pHelp + " --help'.\n");
    }
}

TEST(Usage, ErrorsNameTheValuesOfAChoice) {
    const Result result = RunWith("records --format jso");
    EXPECT_EQ(result.code, kUsage);
    EXPECT_THAT(result.err, testing::MatchesRegex("tallyra: --format: 'jso' is none of "
                                                  "[a-z]+(, [a-z]+)+; did you mean 'json'\\?\n.*"));
    EXPECT_EQ(RunWith("export --format xml").code, kUsage);
}

TEST(Usage, ErrorsShowNoControlCharacters) {
    const Result result = RunProgram({TALLYRA_COMMAND, "records", "a\033[2Jb\nc"});
    EXPECT_THAT(result.err, testing::HasSubstr("unexpected argument 'a?[2Jb?c'\n"));
}

// Recursion for each character of a value would overflow this stack.
TEST(Usage, ErrorsAboutLongArgumentsAreShort) {
    const std::string longText(60'000, 'a');
    for (const char* pArguments :
         {"records --since", "records --format", "records --code", "records --limit", "kpi --by",
          "watch --interval", "policy set x", "records --codes", "records", ""}) {
        SCOPED_TRACE(pArguments);
        const Result result = RunProgram({"sh", "-c", R"(ulimit -s 4096; exec $0 $1 "$2")",
                                          TALLYRA_COMMAND, pArguments, longText});
        EXPECT_EQ(result.code, kUsage);
        EXPECT_LT(result.err.size(), 1500U);
        EXPECT_THAT(result.err, testing::StartsWith("tallyra: "));
    }
}

TEST(Usage, FailsForTheOptionThatOnlyAnotherCommandHas) {
    EXPECT_EQ(RunWith("playbacks --playback x").code, kUsage);
    EXPECT_EQ(RunWith("forget --yes").code, kUsage);
    EXPECT_EQ(RunWith("records --since yesterdayish").code, kUsage);
    EXPECT_EQ(RunWith("forget --all --uid 0").code, kUsage);
}

}  // namespace
