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

// Each has a page and a unit of its own. Those behind tallyra-service are the fleet's.
const std::vector<std::string> kDaemons = {DAEMONS};

// The kit for developers of players and of platforms.
const std::vector<std::string> kKit = {KIT};

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
    ExpectPage(PACKAGING "/man/regdb.1", PROGRAMS "regdb");
    for (const std::string& program : kDaemons) {
        SCOPED_TRACE(program);
        ExpectPage(PACKAGING "/man/" + program + ".8", PROGRAMS + program);
    }
#ifdef TALLYRA_KEYS
    ExpectPage(PACKAGING "/man/tallyra-keys.1", TALLYRA_KEYS);
#endif
    for (const std::string& program : kKit) {
        SCOPED_TRACE(program);
        ExpectPage(PACKAGING "/man/" + program + ".1", PROGRAMS + program);
    }
}

TEST(ManPages, NameEveryVariable) {
    for (const std::string& program : kDaemons) {
        const std::string page = ReadFile(PACKAGING "/man/" + program + ".8");
        for (const std::string& variable :
             Matches(RunProgram({PROGRAMS + program, "--help"}).out, R"(Env:(\w+))")) {
            EXPECT_THAT(page, testing::HasSubstr(variable)) << program;
        }
    }
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
    for (const std::string& program : kDaemons) {
        const std::string unit = PACKAGING_BUILT "/" + program + ".service";
        // The exposure in tenths; a network alone has five. Versions of systemd-analyze weigh
        // settings differently.
        const char* pMost = program == "tallyra-service" ? "--threshold=10" : "--threshold=15";
        const Result result =
            RunProgram({"systemd-analyze", "security", "--offline=true", pMost, unit});
        EXPECT_EQ(result.code, 0) << result.out << result.err;
    }
}

TEST(SystemdUnit, IsValid) {
    if (!IsInstalled("systemd-analyze")) {
        GTEST_SKIP() << "systemd-analyze is not installed";
    }
    const CTemporaryFolder folder;
    for (const std::string& program : kDaemons) {
        const std::string unit = ReadFile(PACKAGING_BUILT "/" + program + ".service");
        // The program need not be installed.
        folder.Write(program + ".service", std::regex_replace(unit, std::regex(R"(ExecStart=\S+)"),
                                                              "ExecStart=/bin/true"));
        const Result result = RunProgram(
            {"systemd-analyze", "verify", "--man=no", folder.Path() / (program + ".service")});
        EXPECT_EQ(result.code, 0) << program;
        EXPECT_EQ(result.err, "");
    }
}

TEST(ExampleSettings, AreThoseThatTheProgramsRead) {
    const std::vector<std::string> programs(kDaemons.begin() + 1, kDaemons.end());
    if (programs.empty()) {
        GTEST_SKIP() << "the fleet is not built";
    }
    for (const std::string& program : programs) {
        auto known = Matches(RunProgram({PROGRAMS + program, "--help"}).out, R"(Env:(\w+))");
        known.insert("TALLYRA_OPTIONS");
        const std::string name = program.substr(program.find('-') + 1);
        const auto set =
            Matches(ReadFile(PACKAGING "/systemd/" + name + ".conf"), R"(\n#?([A-Z_]+)=)");
        EXPECT_THAT(set, testing::Contains("TALLYRA_SERVER"));
        EXPECT_THAT(known, testing::IsSupersetOf(set)) << program;
    }
}

// What a version map exports, as symbol@version. A version is a symbol as well.
std::set<std::string> ExportedBy(const std::string& map) {
    std::set<std::string> exported;
    for (const std::string& node : Matches(map, R"(\n(\S+ \{[^}]*)\})")) {
        const std::string version = node.substr(0, node.find(' '));
        exported.insert(version + "@" + version);
        for (const std::string& symbol : Matches(node, R"(\n    (\w+);)")) {
            exported.insert(symbol + "@" + version);
        }
    }
    return exported;
}

// The tools that build packages notice only when they run, which takes minutes.
TEST(DebianPackages, ListTheExportedSymbolsOfTheLibraries) {
    const struct {
        const char* pMap;
        const char* pSymbols;
    } libraries[] = {{"Client/libtallyra.map", "libtallyra1"},
                     {"Platform/linux/libtallyra-platform.map", "libtallyra-platform1"},
                     {"Gst/libtallyra-gst.map", "libtallyra-gst1"},
                     {"TestKit/platform/libtallyra-testplatform.map", "libtallyra-testplatform1"}};
    for (const auto& library : libraries) {
        SCOPED_TRACE(library.pSymbols);
        const auto exported = ExportedBy(ReadFile(PROJECT "/" + std::string(library.pMap)));
        EXPECT_GT(exported.size(), 1U);
        const std::string listed =
            ReadFile(PACKAGING "/debian/" + std::string(library.pSymbols) + ".symbols");
        EXPECT_EQ(Matches(listed, R"(\n (\S+@\S+) )"), exported);
    }
}

TEST(DebianPackages, HaveTheVersionOfTheProject) {
    const std::string changelog = ReadFile(PACKAGING "/debian/changelog");
    const auto newest = Matches(changelog.substr(0, changelog.find('\n')), R"(\(([\d.]+)\))");
    EXPECT_THAT(RunProgram({TALLYRA_COMMAND, "--version"}).out,
                testing::HasSubstr(newest.empty() ? "a version" : *newest.begin()));
}

}  // namespace
