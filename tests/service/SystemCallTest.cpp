// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "FaultySystem.h"
#include "KeeperFixture.h"

using testing::IsEmpty;

namespace {

using namespace std::chrono_literals;

constexpr SystemCall kCalls[] = {SystemCall::OPEN,     SystemCall::WRITE,  SystemCall::SYNC,
                                 SystemCall::TRUNCATE, SystemCall::UNLINK, SystemCall::MAP};
constexpr std::array kErrors = {EIO, ENOSPC, EDQUOT};

/// One system call after the other fails while a keeper opens a store, adds batches, does its
/// housekeeping, and opens the store again.
class FailingSystemCall : public CStoreFilesTest,
                          public testing::WithParamInterface<std::tuple<SystemCall, int>> {
  protected:
    // Returns the playbacks whose batches were accepted.
    std::vector<std::string> Play() {
        std::vector<std::string> accepted;
        CTYStoreKeeper keeper(m_File, {}, [this] { return m_Now; });
        const auto add = [&](const std::string& playback) {
            if (keeper.Add(BatchOf(playback))) {
                accepted.push_back(playback);
            }
            m_Now += 1s;
        };
        keeper.Open();
        add("first");
        add("second");
        keeper.Prune();
        add("third");
        keeper.Reopen();
        add("fourth");
        keeper.Prune();
        m_nCalls = CFaultySystem::Calls(m_Call);
        CFaultySystem::Repair();
        m_Now += 1s;
        const std::size_t before = accepted.size();
        add("last");
        EXPECT_EQ(accepted.size(), before + 1) << "it does not recover";
        const auto refused = 5 - static_cast<std::int64_t>(accepted.size());
        m_nRefused += refused;
        keeper.Prune();
        EXPECT_EQ(Number("SELECT coalesce(sum(records), 0) FROM losses WHERE reason = 'full'"),
                  refused);
        return accepted;
    }
    // Plays with the n-th calls failing, on a new store; returns whether there is an n-th call.
    bool PlayWithFault(int n, int times) {
        SCOPED_TRACE(testing::Message() << "at call " << n << ", times " << times);
        for (const std::string& file : Files("tallyra.db")) {
            std::filesystem::remove(file);
        }
        CFaultySystem::Fail(m_Call, m_nError, n, times);
        const std::vector<std::string> accepted = Play();
        EXPECT_EQ(Playbacks(m_File), accepted);
        EXPECT_EQ(Column("PRAGMA integrity_check"), std::vector<std::string>{"ok"});
        EXPECT_THAT(Aside(), IsEmpty()) << "an intact file was set aside";
        return m_nCalls >= n;
    }

    const SystemCall m_Call = std::get<0>(GetParam());
    const int m_nError = std::get<1>(GetParam());
    const CFaultySystem m_System;
    int m_nCalls = 0;
    std::int64_t m_nRefused = 0;
};

TEST_P(FailingSystemCall, LeavesEachBatchStoredOrRefusedAndCounted) {
    // There are many writes. The errors take turns: together they fail each.
    const int stride = m_Call == SystemCall::WRITE ? static_cast<int>(kErrors.size()) : 1;
    const auto turn = std::ranges::find(kErrors, m_nError) - kErrors.begin();
    for (const int times : {1, INT_MAX}) {
        int n = 1 + static_cast<int>(turn) % stride;
        while (PlayWithFault(n, times) && !HasFailure()) {
            n += stride;
        }
        EXPECT_GT(m_nCalls, 0) << "the call is never made";
    }
    // Failing to delete a file or to cut it short does not matter.
    const bool canRefuse = m_Call != SystemCall::UNLINK && m_Call != SystemCall::TRUNCATE;
    EXPECT_TRUE(!canRefuse || m_nRefused > 0) << "no fault had an effect";
}

using FullDisk = CStoreFilesTest;

TEST_F(FullDisk, GetsTheBatchOnceTheLogIsEmpty) {
    const CFaultySystem system;
    ASSERT_TRUE(m_Keeper.Add(BatchOf("old")));
    CFaultySystem::Fail(SystemCall::WRITE, ENOSPC, 1, 1);
    EXPECT_TRUE(m_Keeper.Add(BatchOf("new")));
    EXPECT_GT(CFaultySystem::Calls(SystemCall::WRITE), 1);
    EXPECT_THAT(Errors(), IsEmpty());
    EXPECT_EQ(Playbacks(m_File), (std::vector<std::string>{"old", "new"}));
}

INSTANTIATE_TEST_SUITE_P(Of, FailingSystemCall,
                         testing::Combine(testing::ValuesIn(kCalls), testing::ValuesIn(kErrors)),
                         [](const auto& one) {
                             return NameOf(std::get<0>(one.param)) + "_" +
                                    strerrorname_np(std::get<1>(one.param));
                         });

}  // namespace
