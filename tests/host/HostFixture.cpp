// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "HostFixture.h"

#include "Sanitizers.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#if TALLYRA_TEST_THREAD_SANITIZER
// Some hosts exit with live collectors on purpose. The threads of these are never joined.
extern "C" const char* __tsan_default_options() {  // NOLINT: the sanitizer's name for it
    return "report_thread_leaks=0";
}
#endif

Collector MakeCollector() {
    return Collector(GetTYDataCollectorInstance("org.example.host", TY_PLAYER_NATIVE));
}

void Play(ITYDataCollector& collector) {
    std::string url = "film.mp4";
    CTYContentInfo content(&url, 0);
    content.SetTitle("Film");
    collector.SetContentInfo(&content);
    collector.SendMediaEvent(TY_EVENT_START, 0, 0);
    for (int i = 0; i < 20; ++i) {
        collector.SendMediaEvent(static_cast<TY_EVENT_TYPE>(99), i, 0);
    }
    collector.Execute(100, 1, "text");
    collector.SendMediaEvent(TY_EVENT_STOP, 0, 0);
}

CHostTest::CHostTest()
    : m_Settings(std::filesystem::temp_directory_path() /
                 ("tallyra-host-" + std::to_string(getpid()))) {
    std::ofstream(m_Settings) << "[db/tallyra]\nlog_on=1\n";
    setenv("REGDB_FILE", m_Settings.c_str(), 1);
    setenv("LOGSVC_OUTPUT", "stderr", 1);
    setenv("LOGSVC_LEVEL", "off", 1);
    m_Bus.BecomeSystemBus();
    m_Service.OwnName();
}

CHostTest::~CHostTest() {
    std::filesystem::remove(m_Settings);
}

bool CHostTest::PlayUntilItArrives(ITYDataCollector& collector) {
    for (int i = 0; i < 100 && !m_Service.WaitForRecords(1, std::chrono::milliseconds(300)); ++i) {
        Play(collector);
    }
    return !m_Service.Records().empty();
}

bool CHostTest::CanPlay() {
    return PlayUntilItArrives(*MakeCollector()) && m_Service.Problems().empty();
}
