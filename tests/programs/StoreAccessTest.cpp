// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "AsUser.h"
#include "CommandFixture.h"

#include <grp.h>
#include <sys/stat.h>

namespace {

using std::filesystem::perms;
using testing::HasSubstr;

constexpr int kFailed = 1;
/// A group of Debian's that neither root nor nobody is a member of.
constexpr const char* kGroup = "games";

/// Runs the command as a user without rights to the store.
class StoreAccess : public CCommandTest {
  protected:
    void SetUp() override {
        const CAsUser nobody(kNobody);
        if (geteuid() != kNobody || eaccess(TALLYRA_COMMAND, X_OK) != 0) {
            GTEST_SKIP() << "takes root, to run the command as another user who can reach it";
        }
    }
    static Result RunAsNobody(std::vector<std::string> words) {
        words.insert(words.begin(),
                     {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
        return RunProgram(words);
    }
    Result RunOnStore(const std::vector<std::string>& command) const {
        return RunAsNobody(Command(command));
    }
    void GiveToGroup(const std::string& path, perms permissions) const {
        std::filesystem::permissions(path, permissions);
        const group* pGroup = getgrnam(kGroup);
        ASSERT_NE(pGroup, nullptr);
        ASSERT_EQ(chown(path.c_str(), 0, pGroup->gr_gid), 0);
    }
    void ExpectCannotChange() const {
        ExpectLine(RunOnStore({"policy", "set", "a", "0"}),
                   "cannot change " + Db() +
                       ": permission denied; run this as user root, to whom it belongs");
    }
    static void ExpectLine(const Result& result, const std::string& line) {
        EXPECT_EQ(result.out, "");
        ExpectError(result, line);
    }
    // The command status describes the service, whatever the store is like.
    static void ExpectError(const Result& result, const std::string& line) {
        EXPECT_EQ(result.code, kFailed);
        EXPECT_EQ(result.err, "tallyra: " + line + "\n");
    }
};

TEST_F(StoreAccess, NamesTheGroupThatMayRead) {
    Store({}, WholePlayback());
    const std::string folder = m_Folder.Path();
    GiveToGroup(folder, perms(0750));
    ExpectLine(RunOnStore({"records"}),
               "cannot read " + Db() + ": permission denied; " + folder +
                   " is open to user root and group games: run 'sudo usermod -aG games nobody' and "
                   "log in again, or run this as root");
    std::filesystem::permissions(folder, perms(0755));
    GiveToGroup(Db(), perms(0640));
    EXPECT_THAT(RunOnStore({"stats"}).err,
                HasSubstr(Db() + " is open to user root and group games"));
}

TEST_F(StoreAccess, NamesTheOwnerWhereNoGroupMayRead) {
    Store({}, WholePlayback());
    ExpectLine(RunOnStore({"records"}), "cannot read " + Db() +
                                            ": permission denied; run this as user root, to whom " +
                                            m_Folder.Path().string() + " belongs");
}

TEST_F(StoreAccess, IsReadableWithoutWritePermissionWhileTheServiceRuns) {
    Store({}, WholePlayback());
    std::filesystem::permissions(m_Folder.Path(), perms(0755));
    std::filesystem::permissions(Db(), perms(0644));
    const Result result = RunOnStore({"records"});
    EXPECT_EQ(result.code, kFailed);
    EXPECT_THAT(result.err, HasSubstr("readable only while tallyra-service runs"));
    ExpectCannotChange();
    const CTYStore service(Db());
    EXPECT_EQ(RunOnStore({"records"}).code, 0);
    ExpectCannotChange();
}

using StoreKind = CCommandTest;

// A pipe would block the command for ever.
TEST_F(StoreKind, IsARegularFileThatIsNotEmpty) {
    ASSERT_EQ(mkfifo(File("pipe").c_str(), 0600), 0);
    m_Folder.Write("empty", "");
    const std::pair<std::string, std::string> wrong[] = {{File("pipe"), "it is no file"},
                                                         {m_Folder.Path(), "it is a folder"},
                                                         {File("empty"), "it is empty"}};
    for (const auto& [path, reason] : wrong) {
        const Result result = RunProgram({TALLYRA_COMMAND, "stats", "--db", path});
        EXPECT_EQ(result.code, kFailed);
        EXPECT_EQ(result.err, "tallyra: cannot read " + path + ": " + reason + "\n");
        EXPECT_EQ(RunProgram({TALLYRA_COMMAND, "complete", "playbacks", "--db", path}).code, 0);
    }
}

/// Runs the command without --db, with a home of the test's own.
class DefaultStore : public StoreAccess {
  protected:
    Result RunAtHome(const std::vector<std::string>& environment) const {
        std::vector<std::string> words = {"env", "-u", "TALLYRA_DB",
                                          "XDG_STATE_HOME=" + File("home")};
        words.insert(words.end(), environment.begin(), environment.end());
        words.insert(words.end(), {TALLYRA_COMMAND, "status"});
        return RunAsNobody(words);
    }
    void MakeReadable() const {
        std::filesystem::permissions(m_Folder.Path(), perms(0777));
        std::filesystem::permissions(Db(), perms(0666));
    }
};

TEST_F(DefaultStore, IsTheOneThatTheEnvironmentNames) {
    Store({}, WholePlayback());
    MakeReadable();
    const Result result = RunAtHome({"TALLYRA_DB=" + Db()});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr(Db()));
    ExpectError(RunAtHome({"TALLYRA_DB=/nowhere.db"}),
                "no store at /nowhere.db; start tallyra-service, which creates it, or name another "
                "with --db or TALLYRA_DB");
}

TEST_F(DefaultStore, IsTheUsersWhereThereIsOne) {
    Store({}, WholePlayback());
    MakeReadable();
    std::filesystem::create_directories(File("home/tallyra"));
    std::filesystem::create_symlink(Db(), File("home/tallyra/tallyra.db"));
    const Result result = RunAtHome({});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr(File("home/tallyra/tallyra.db")));
}

TEST_F(DefaultStore, IsTheSystemsWhereTheUserHasNone) {
    Store({}, WholePlayback());
    MakeReadable();
    const auto run = [&](const std::string& prepare) {
        return RunProgram({"unshare", "-m", "sh", "-c",
                           "mount -t tmpfs -o mode=755 tmpfs /var/lib && " + prepare +
                               " && XDG_STATE_HOME=$0/home exec setpriv --reuid=65534 "
                               "--clear-groups $1 status",
                           m_Folder.Path(), TALLYRA_COMMAND});
    };
    if (run("exit").code != 0) {
        GTEST_SKIP() << "takes the right to mount, to hide this machine's own store";
    }
    ExpectError(run("true"), "no store at " + File("home/tallyra/tallyra.db") +
                                 " or /var/lib/tallyra/tallyra.db; start tallyra-service, which "
                                 "creates it, or name another with --db or TALLYRA_DB");
    EXPECT_THAT(run("mkdir /var/lib/tallyra && ln -s $0/tallyra.db /var/lib/tallyra").out,
                HasSubstr("/var/lib/tallyra/tallyra.db"));
}

}  // namespace
