// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Sanitizers.h"
#include "TemporaryFolder.h"

#include "appcat.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

namespace {

constexpr const char* kApp = "org.example.tallyra.test";

/// Metadata of a component, as a package installs it.
std::string Metadata(const std::string& package, const std::string& releases) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<component type=\"desktop-application\">\n"
           "  <id>org.example.tallyra.test</id>\n"
           "  <name>Test</name>\n" +
           (package.empty() ? "" : "  <pkgname>" + package + "</pkgname>\n") + "  <releases>" +
           releases + "</releases>\n</component>\n";
}

std::string Release(const std::string& version, const std::string& date) {
    return "<release version=\"" + version + "\" date=\"" + date + "\"/>";
}

class CAppcatTest : public testing::Test {
  protected:
    // GLib reads where the user's data are once in a process.
    static CTemporaryFolder& Data() {
        static CTemporaryFolder folder;
        setenv("XDG_DATA_HOME", folder.Path().c_str(), 1);
        return folder;
    }

    CAppcatTest() { Data(); }
    ~CAppcatTest() override { std::filesystem::remove_all(Data().Path() / "metainfo"); }

    static void Install(const std::string& file, const std::string& text) {
        Data().Write("metainfo/" + file, text);
    }

    static void InstallVersion(const std::string& version) {
        Install("org.example.tallyra.test.metainfo.xml",
                Metadata("test-package", Release(version, "2024-01-01")));
    }

    /// Waits until the file has not just been changed.
    static void LetItSettle() { std::this_thread::sleep_for(std::chrono::milliseconds(2100)); }

    /// @return the version by the road that the library takes, or the code where it ends
    static std::string Version() {
        appcat_appinfo_h app = nullptr;
        appcat_pkginfo_h package = nullptr;
        char* id = nullptr;
        char* version = nullptr;
        int code = appcat_appinfo_get_usr_appinfo(kApp, getuid(), &app);
        code = code != 0 ? code : appcat_appinfo_get_pkgid(app, &id);
        code = code != 0 ? code : appcat_pkginfo_get_pkginfo(id, &package);
        code = code != 0 ? code : appcat_pkginfo_get_version(package, &version);
        std::string result = code == 0 ? std::string(id) + " " + version : std::to_string(code);
        appcat_pkginfo_destroy_pkginfo(package);
        appcat_appinfo_destroy_appinfo(app);
        return result;
    }
};

class CForkedAppcatTest : public CAppcatTest {
  protected:
    static bool ForkedChildFinds(const std::string& version) {
        const pid_t child = fork();
        if (child == 0) {
            alarm(10);
            _exit(Version() == version ? 0 : 1);
        }
        int status = 1;
        waitpid(child, &status, 0);
        return status == 0;
    }
};

TEST_F(CAppcatTest, PackageNameAndNewestReleaseAreFound) {
    Install("org.example.tallyra.test.metainfo.xml",
            Metadata("test-package", Release("1.2", "2024-01-01") + Release("1.10", "2025-01-01") +
                                         Release("1.9", "2024-06-01")));
    EXPECT_EQ(Version(), "test-package 1.10");
}

TEST_F(CAppcatTest, ComponentWithoutAPackageNameIsItsOwnPackage) {
    Install("org.example.tallyra.test.metainfo.xml", Metadata("", Release("3", "2024-01-01")));
    EXPECT_EQ(Version(), "org.example.tallyra.test 3");
}

TEST_F(CAppcatTest, FileMayHaveAnyName) {
    Install("something-else.xml", Metadata("other-package", Release("4.5", "2024-01-01")));
    EXPECT_EQ(Version(), "other-package 4.5");
}

TEST_F(CAppcatTest, ComponentWithoutAReleaseHasNoVersion) {
    Install("org.example.tallyra.test.metainfo.xml", Metadata("test-package", ""));
    EXPECT_EQ(Version(), std::to_string(APPCAT_ERROR_NO_VERSION));
}

TEST_F(CAppcatTest, UpgradeIsSeenAtOnce) {
    InstallVersion("1.0");
    EXPECT_EQ(Version(), "test-package 1.0");
    InstallVersion("1.1");
    EXPECT_EQ(Version(), "test-package 1.1");
    LetItSettle();
    EXPECT_EQ(Version(), "test-package 1.1");
    InstallVersion("1.2");
    EXPECT_EQ(Version(), "test-package 1.2");
}

TEST_F(CAppcatTest, RemovedApplicationIsNotFoundAnyMore) {
    InstallVersion("1.0");
    LetItSettle();
    EXPECT_EQ(Version(), "test-package 1.0");
    std::filesystem::remove_all(Data().Path() / "metainfo");
    EXPECT_EQ(Version(), std::to_string(APPCAT_ERROR_NOT_FOUND));
}

TEST_F(CAppcatTest, UnknownApplicationIsNotFound) {
    EXPECT_EQ(Version(), std::to_string(APPCAT_ERROR_NOT_FOUND));
}

TEST_F(CAppcatTest, MalformedMetadataIsNotFound) {
    Install("org.example.tallyra.test.metainfo.xml", "<component><id>");
    EXPECT_EQ(Version(), std::to_string(APPCAT_ERROR_NOT_FOUND));
}

TEST_F(CAppcatTest, WrongArgumentsAreRefused) {
    appcat_appinfo_h app = nullptr;
    for (const char* id : {static_cast<const char*>(nullptr), "", "../etc/passwd"}) {
        EXPECT_EQ(appcat_appinfo_get_usr_appinfo(id, getuid(), &app),
                  APPCAT_ERROR_INVALID_PARAMETER);
    }
    EXPECT_EQ(appcat_appinfo_get_usr_appinfo(kApp, getuid(), nullptr),
              APPCAT_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(appcat_pkginfo_get_version(nullptr, nullptr), APPCAT_ERROR_INVALID_PARAMETER);
}

// The parent's other threads may hold any lock at the moment of the fork.
TEST_F(CForkedAppcatTest, MayAskWhileThreadsOfTheParentDo) {
    if (kWithSanitizersAllocator) {
        GTEST_SKIP() << "a fork leaves locks of the sanitizer's allocator held";
    }
    InstallVersion("1.0");
    LetItSettle();
    std::atomic<bool> done{false};
    std::thread asking([&] {
        while (!done) {
            Version();
        }
    });
    bool answered = true;
    for (int i = 0; i < 500 && answered; ++i) {
        answered = ForkedChildFinds("test-package 1.0");
    }
    done = true;
    asking.join();
    EXPECT_TRUE(answered);
}

TEST_F(CAppcatTest, NothingIsFoundWithoutDescriptors) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    InstallVersion("1.0");
    const auto scenario = [] {
        const rlimit none{3, 3};
        setrlimit(RLIMIT_NOFILE, &none);
        _exit(Version() == std::to_string(APPCAT_ERROR_NOT_FOUND) ? 0 : 1);
    };
    EXPECT_EXIT(scenario(), testing::ExitedWithCode(0), "");
}

}  // namespace
