// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ChildScenario.h"
#include "HostDescriptors.h"
#include "Sanitizers.h"
#include "TemporaryFolder.h"

#include "appcat.h"

namespace {

constexpr const char* kApp = "org.example.tallyra.test";
constexpr const char* kFile = "org.example.tallyra.test.metainfo.xml";

/// @return the metadata file that a package installs
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
    // GLib reads the user's data folder once per process.
    static CTemporaryFolder& Data() {
        static CTemporaryFolder folder;
        setenv("XDG_DATA_HOME", folder.Path().c_str(), 1);
        return folder;
    }

    CAppcatTest() { Data(); }
    ~CAppcatTest() override { Uninstall(); }

    static void Install(const std::string& metadata, const std::string& file = kFile) {
        Data().Write("metainfo/" + file, metadata);
    }
    static void InstallVersion(const std::string& version) {
        Install(Metadata("test-package", Release(version, "2024-01-01")));
    }
    static void Uninstall() { std::filesystem::remove_all(Data().Path() / "metainfo"); }

    /// Waits until the platform caches the file: it must be older than a second.
    static void WaitUntilCached() {
        std::this_thread::sleep_for(std::chrono::milliseconds(2100));
        LookUp();
    }

    /// @return the package and its version as the library looks them up, or the error code
    static std::string LookUp() {
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

const std::string kNotFound = std::to_string(APPCAT_ERROR_NOT_FOUND);

TEST_F(CAppcatTest, FindsPackageAndNewestVersion) {
    const std::string three =
        Release("1.2", "2024-01-01") + Release("1.10", "2025-01-01") + Release("1.9", "2024-06-01");
    const struct {
        std::string metadata;
        const char* file;
        std::string result;
    } cases[] = {
        {Metadata("test-package", three), kFile, "test-package 1.10"},
        {Metadata("", Release("3", "2024-01-01")), kFile, "org.example.tallyra.test 3"},
        {Metadata("other", Release("4.5", "2024-01-01")), "something-else.xml", "other 4.5"},
        {Metadata("test-package", ""), kFile, std::to_string(APPCAT_ERROR_NO_VERSION)},
        {"<component><id>", kFile, kNotFound},
    };
    for (const auto& [metadata, file, result] : cases) {
        Install(metadata, file);
        EXPECT_EQ(LookUp(), result);
        Uninstall();
        EXPECT_EQ(LookUp(), kNotFound);
    }
}

TEST_F(CAppcatTest, SeesAnUpgradeAndARemovalAtOnce) {
    InstallVersion("1.0");
    EXPECT_EQ(LookUp(), "test-package 1.0");
    InstallVersion("1.1");
    EXPECT_EQ(LookUp(), "test-package 1.1");
    WaitUntilCached();
    EXPECT_EQ(LookUp(), "test-package 1.1");
    InstallVersion("1.2");
    EXPECT_EQ(LookUp(), "test-package 1.2");
    WaitUntilCached();
    Uninstall();
    EXPECT_EQ(LookUp(), kNotFound);
}

TEST_F(CAppcatTest, RejectsInvalidParameters) {
    appcat_appinfo_h app = nullptr;
    for (const char* id : {static_cast<const char*>(nullptr), "", "../etc/passwd"}) {
        EXPECT_EQ(appcat_appinfo_get_usr_appinfo(id, getuid(), &app),
                  APPCAT_ERROR_INVALID_PARAMETER);
    }
    EXPECT_EQ(appcat_appinfo_get_usr_appinfo(kApp, getuid(), nullptr),
              APPCAT_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(appcat_pkginfo_get_version(nullptr, nullptr), APPCAT_ERROR_INVALID_PARAMETER);
}

class CForkedAppcatTest : public CAppcatTest {};

// Another thread of the parent may hold any lock at the fork.
TEST_F(CForkedAppcatTest, LooksUpWhileThreadsOfTheParentDo) {
    if (kWithSanitizersAllocator) {
        GTEST_SKIP() << "a fork leaves locks of the sanitizer's allocator held";
    }
    InstallVersion("1.0");
    WaitUntilCached();
    std::atomic<bool> done{false};
    std::thread asking([&] {
        while (!done) {
            LookUp();
        }
    });
    int failed = 0;
    for (int i = 0; i < 500 && failed == 0; ++i) {
        failed = RunForked([] { return LookUp() == "test-package 1.0" ? 0 : 1; }).exitCode;
    }
    done = true;
    asking.join();
    EXPECT_EQ(failed, 0);
}

TEST_F(CAppcatTest, FindsNothingWithoutDescriptors) {
    InstallVersion("1.0");
    ExpectInNewProcess([] {
        CHostDescriptors::RefuseMore();
        return LookUp() == kNotFound;
    });
}

}  // namespace
