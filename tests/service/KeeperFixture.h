// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SERVICE_KEEPERFIXTURE_H
#define TALLYRA_TESTS_SERVICE_KEEPERFIXTURE_H

#include "Eventually.h"
#include "ServiceFixture.h"

#include <sys/wait.h>

/// @return the value of a policy
inline std::optional<int> ValueOf(const std::optional<TYPolicy>& policy) {
    return policy ? std::optional(policy->value) : std::nullopt;
}

/// Another process, which does something and then waits until it is killed.
class CBesideProcess {
  public:
    explicit CBesideProcess(const std::function<void()>& work) {
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC) != 0 || (m_nPid = fork()) < 0) {
            throw std::system_error(errno, std::generic_category(), "fork");
        }
        if (m_nPid == 0) {
            work();
            (void)!write(ends[1], "!", 1);
            while (true) {
                pause();
            }
        }
        close(ends[1]);
        char said = 0;
        m_bReady = read(ends[0], &said, 1) == 1;
        close(ends[0]);
    }
    ~CBesideProcess() { Kill(); }
    CBesideProcess(const CBesideProcess&) = delete;
    CBesideProcess& operator=(const CBesideProcess&) = delete;

    bool IsReady() const { return m_bReady; }
    pid_t Pid() const { return m_nPid; }
    void Kill() {
        if (m_nPid > 0) {
            kill(m_nPid, SIGKILL);
            waitpid(m_nPid, nullptr, 0);
            m_nPid = -1;
        }
    }

  private:
    pid_t m_nPid = -1;
    bool m_bReady = false;
};

/// A keeper whose files are looked at and damaged.
class CStoreFilesTest : public CKeeperTest {
  protected:
    /// @return the playbacks of the records in a file, in the order of their ids
    static std::vector<std::string> Playbacks(const std::filesystem::path& file) {
        return CFileReader(file).Column("SELECT playback_id FROM records ORDER BY id");
    }
    /// @return the files in the folder whose names contain the text, in the order of their names
    std::vector<std::string> Files(const std::string& text) const {
        std::vector<std::string> files;
        for (const auto& entry : std::filesystem::directory_iterator(m_Folder.Path())) {
            if (entry.path().filename().string().find(text) != std::string::npos) {
                files.push_back(entry.path());
            }
        }
        std::sort(files.begin(), files.end());
        return files;
    }
    /// @return databases that were set aside, without their logs
    std::vector<std::filesystem::path> Aside() const {
        std::vector<std::string> files = Files(".damaged-");
        std::erase_if(files, [](const std::string& name) {
            return name.ends_with("-wal") || name.ends_with("-shm");
        });
        return {files.begin(), files.end()};
    }

    /// Fills the pages of a table, or of one of its kinds of pages, with 0x5a.
    /// @param where  condition on SQLite's table dbstat
    /// @return the number of pages
    std::size_t DamagePages(const std::string& where) const {
        std::vector<std::string> pages =
            Column("SELECT pageno FROM dbstat WHERE " + where + " ORDER BY pageno");
        std::fstream file(m_File, std::ios::in | std::ios::out | std::ios::binary);
        for (const std::string& page : pages) {
            file.seekp((std::stoll(page) - 1) * 4096);
            file << std::string(4096, '\x5a');
        }
        return pages.size();
    }

    /// Leaves a store as a killed service does, with a log. The log has only a policy of "any", so
    /// that damage of other pages in the database counts.
    /// @param add  adds records
    void MakeUnclean(const std::function<void(CTYStoreKeeper&)>& add) const {
        const std::string source = m_Folder.Path() / "source.db";
        {
            CTYStoreKeeper keeper(source, {});
            add(keeper);
            keeper.Reopen();
            CFileReader(source, CTYDatabase::Mode::READ_WRITE)
                .Execute("INSERT INTO policies VALUES('any', 1, 2, 0)");
            std::filesystem::copy_file(source, m_File);
            std::filesystem::copy_file(source + "-wal", m_File.string() + "-wal");
        }
        std::filesystem::remove(source);
    }

    /// Does the housekeeping until there is none left, the check included.
    static void Finish(CTYStoreKeeper& keeper) {
        EXPECT_TRUE(Eventually([&] { return keeper.HasGrown(); }));
        while (keeper.Prune()) {
        }
    }
};

#endif  // TALLYRA_TESTS_SERVICE_KEEPERFIXTURE_H
