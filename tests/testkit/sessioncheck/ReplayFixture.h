// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_TESTKIT_REPLAYFIXTURE_H
#define TALLYRA_TESTS_TESTKIT_REPLAYFIXTURE_H

#include "PrivateBus.h"
#include "Proc.h"
#include "Program.h"
#include "Recording.h"
#include "ServiceProcess.h"
#include "TYDataCollector.h"
#include "Test.h"
#include "doubles/FakeClock.h"
#include "doubles/PlatformDouble.h"

/// Plays recordings through the library to the collection service, with the recorded times.
class CReplayTest : public testing::Test {
  protected:
    CReplayTest() {
        m_Bus.BecomeSystemBus();
        m_Service.emplace(TALLYRA_SERVICE, m_Bus.Address(),
                          std::vector<std::string>{"--db", Store()});
        m_Service->WaitUntilReady();
    }

    ~CReplayTest() override { m_Platform.onLog = nullptr; }

    static Recording Read(const std::string& name) {
        std::ifstream file(RECORDINGS "/" + name + ".txt");
        return ReadRecording(file, name);
    }

    /// Plays a recording and waits until the service has it.
    void Play(const Recording& recording) {
        WatchLog();
        CFakeClock clock;
        clock.SetRealTime(m_nBegin += 3600, 0);
        CTYDataCollector collector("org.example.player", TY_PLAYER_NATIVE, SystemBus(), clock);
        Connect(clock);
        Describe(collector, recording.content);
        long long now = 0;
        for (const Step& step : recording.steps) {
            clock.Advance(std::chrono::milliseconds(step.milliseconds -
                                                    std::exchange(now, step.milliseconds)));
            Settle(clock);
            Report(collector, step);
            Settle(clock);
        }
    }

    /// @return the name of a file with all records
    std::string Export() const {
        const std::string file = m_Folder.Path() / "records.jsonl";
        EXPECT_EQ(RunProgram({TALLYRA_COMMAND, "export", "--db", Store(), "--format", "jsonl",
                              "--output", file})
                      .code,
                  0);
        return file;
    }

    static Result Check(const std::string& file) { return RunProgram({CHECK_SESSION, file}); }

    CTemporaryFolder m_Folder;

  private:
    std::string Store() const { return m_Folder.Path() / "tallyra.db"; }

    // The library looks for the service once a second.
    void Connect(CFakeClock& clock) {
        ASSERT_TRUE(Eventually([&] {
            clock.Advance(std::chrono::seconds(1));
            return m_Platform.WaitForLog("CTYDataSender thread sleep....", 1,
                                         std::chrono::milliseconds(10));
        }));
    }

    // Time passes only while the analyzer and the sender wait for it. A call to the service would
    // time out otherwise. A thread that was notified still counts as waiting until it runs, and one
    // that is about to wait misses a notification; the kernel shows neither as sleeping.
    static void Settle(CFakeClock& clock) {
        ASSERT_TRUE(Eventually([&] { return OthersSleep() && clock.Waiters() >= 2; }));
    }

    static bool OthersSleep() {
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
            const pid_t thread = std::stoi(task.path().filename());
            if (thread != gettid() && ReadProcStat(thread).state != 'S') {
                return false;
            }
        }
        return true;
    }

    static void Describe(ITYDataCollector& collector, const Content& content) {
        std::string url = content.url;
        CTYContentInfo info(&url, static_cast<unsigned>(content.startTime));
        info.SetTitle(content.title);
        info.SetDuration(content.duration);
        info.SetContentType(static_cast<TY_CONTENT_TYPE>(content.contentType));
        collector.SetContentInfo(&info);
    }

    // The analyzer stamps the records that it adds, so it has to be done before time passes. The
    // collector logs each call; of a position, it logs another line if it records it.
    void Report(ITYDataCollector& collector, const Step& step) {
        const int slept = m_nSleeps;
        m_nLogged = step.code == TY_EVENT_PLAYBACK_TIME ? -1 : 0;
        Call(collector, step);
        const int expected = slept + (m_nLogged > 0 ? 1 : 0);
        ASSERT_TRUE(Eventually([&] { return m_nSleeps >= expected; }));
    }

    static void Call(ITYDataCollector& collector, const Step& step) {
        switch (step.kind) {
            case Step::Kind::EVENT:
                collector.SendMediaEvent(static_cast<TY_EVENT_TYPE>(step.code), step.first,
                                         step.second);
                break;
            case Step::Kind::ERROR_REPORT:
                collector.SendMediaError(static_cast<TY_ERROR_TYPE>(step.code));
                break;
            case Step::Kind::EXECUTE:
                collector.Execute(step.code, step.first, step.text);
                break;
        }
    }

    void WatchLog() {
        m_Platform.Reset();
        m_Platform.onLog = [this](const CPlatformDouble::LogLine& line) {
            m_nSleeps += line.text == "CTYEventAnalyzer thread sleep...." ? 1 : 0;
            m_nLogged += line.text.starts_with("[EXCUTE]") ? 1 : 0;
        };
    }

    CPrivateBus m_Bus;
    // Playbacks of one thread that begin at the same time would have the same identifier.
    std::int64_t m_nBegin = std::time(nullptr) - 86400;
    CPlatformDouble& m_Platform = CPlatformDouble::Instance();
    std::atomic<int> m_nSleeps{0};  ///< of the analyzer
    std::atomic<int> m_nLogged{0};  ///< records of the current call
    std::optional<CServiceProcess> m_Service;
};

#endif  // TALLYRA_TESTS_TESTKIT_REPLAYFIXTURE_H
