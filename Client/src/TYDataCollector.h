// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYDATACOLLECTOR_H
#define TALLYRA_TYDATACOLLECTOR_H

#include "ITYBus.h"
#include "ITYClock.h"
#include "TYAbandonable.h"
#include "TYAtomic.h"
#include "TYDataSender.h"
#include "TYEventAnalyzer.h"
#include "TYEventCodes.h"
#include "TYKeyWatch.h"
#include "TYMediaData.h"
#include "TYMutex.h"
#include "TYNetworkManager.h"
#include "TYProcess.h"
#include "tallyra/ITYDataCollector.h"

#include "appcat.h"
#include "regdb.h"

#include <array>
#include <memory>
#include <string>

/// Implements ITYDataCollector. Applies the collection rules to each call of a player, makes at
/// most one record of the call, and queues that record for the analyzer.
///
/// TYDataCollector.cpp implements the rules of the events and Execute, TYDataCollectorContent.cpp
/// the description of the content, TYDataCollectorSwitch.cpp the collection switch, the service's
/// policy and the identity of the application.
///
/// Threads: players call the interface from any thread; the platform's settings thread calls
/// CollectOnOffCallback; the sender's connection check calls HandleServiceConnection. The switch,
/// and the flags and positions of the playback, are atomics. The content mutex guards the playback
/// identifier, the description of the content and the package version, so that no record mixes
/// two contents. The mutex is held only while these fields are copied, never during an allocation,
/// a log line or a platform call, and never together with another lock.
///
/// Processes: in a forked child a collector does nothing. Calls return without effect, and the
/// destructor does not destroy the sender, the analyzer and the network manager.
class CTYDataCollector : public virtual ITYDataCollector {
  public:
    /// Connects to the bus, and starts the analyzer and the connection check. A failure is logged;
    /// the collector then drops all reports.
    /// @param bus    makes the calls of libdbus; must outlive the collector
    /// @param clock  reads the time and waits; must outlive the collector
    CTYDataCollector(const char* appId, TY_PLAYER_ID playerId, ITYBus& bus = SystemBus(),
                     ITYClock& clock = SystemClock());
    ~CTYDataCollector() override;
    CTYDataCollector(const CTYDataCollector&) = delete;
    CTYDataCollector& operator=(const CTYDataCollector&) = delete;

    void SetServiceVersion(const char* pServiceVersion) override;
    void SetContentInfo(CTYContentInfo* pContentInfo) override;
    void SetDuration(int duration) override;
    void SetDrmType(TY_DRM_TYPE drmType) override;
    void SetContentType(TY_CONTENT_TYPE contentType) override;
    TY_DRM_TYPE GetDrmType() override;
    TY_CONTENT_TYPE GetContentType() override;
    void SendMediaEvent(TY_EVENT_TYPE event, int param1, int param2) override;
    void SendMediaError(TY_ERROR_TYPE error) override;
    bool Execute(int code, int value, std::string text) override;
    bool GetVersion(int* pMajor, int* pMinor) override;

    /// Removes server and query from a URL: "http://server/a.ts?x" becomes "a.ts". A URL with a
    /// server but no path becomes "://" and the server.
    void GetPathFromUrl(std::string* pUrl);

    /// Makes a record of an event and queues it for the analyzer, unless collection is off.
    void InsertData(TYEventInfo info);

    /// Reads the collection key. Only 1 means on.
    /// @param pOn  receives the switch; false when the key cannot be read
    /// @return false when the key cannot be read
    bool GetCollectOnOff(bool* pOn);
    /// Watches the collection key.
    /// @return false when the platform refuses
    bool RegisterCollectOnOffCallback();
    /// Stops watching. After it has returned, no callback of this collector runs or starts.
    /// @return false when the platform refuses
    bool UnRegisterCollectOnOffCallback();
    /// Called by the platform when the key has changed; `pData` is the collector.
    static void CollectOnOffCallback(struct _keynode_t* pNode, void* pData);

    /// Asks the service whether to collect this application, and sets the switch accordingly.
    /// Blocks until the service answers or the reply timeout of 3 s expires.
    /// @return non-zero when the service answered
    int RequestServicePolicy();
    /// Starts the analyzer and the sender if the switch and the service's policy are on.
    void Start();
    /// Ends the playback: clears its identifier, positions and flags. Keeps the content and the
    /// times of past Execute calls.
    void Reset();

    /// Looks up the version of an application's package.
    /// @param pServiceVersion  receives at most `len` characters
    /// @return false when a look-up fails, or a pointer is null
    bool GetServiceVersion(const char* pAppID, char* pServiceVersion, unsigned int len);
    /// Sets the application's identifier, up to 49 characters, and looks up its package version.
    void SetServiceID(const char* pServiceID);
    /// Reads the wall clock.
    /// @param pTime  receives the time; zero when the clock cannot be read
    /// @return false when the clock cannot be read
    bool GetCurrentTime(TYTime* pTime);

  private:
    static constexpr int kNoPosition = -1;

    using PlaybackID = char[25];

    bool IsPlaybackStarted() TY_EXCLUDES(m_ContentMutex);
    void GetPlaybackID(PlaybackID& playbackID) TY_EXCLUDES(m_ContentMutex);
    void Collect(int event, int param1, int param2);
    void StartPlayback(int param1, int param2);
    void MakePlaybackID();
    TYUrl CurrentUrl() TY_EXCLUDES(m_ContentMutex);
    bool HasUrl() TY_EXCLUDES(m_ContentMutex);
    void EnsureUrl() TY_EXCLUDES(m_ContentMutex);
    void DispatchEvent(int event, int param1, int param2);
    void ReportRenderStart(int param1, int param2);
    void ReportPosition(int position, int param2);
    void ReportHeartbeat(int position, int reference);
    void ReportBufferingStart(int param2);
    bool MayExecute(int code);
    std::unique_ptr<TYUrl> MakeUrl(const CTYContentInfo& info);
    void StoreContent(CTYContentInfo& info) TY_EXCLUDES(m_ContentMutex);
    void CheckSameUrl(const std::string& url);
    void StoreNewContent(std::unique_ptr<TYUrl>& pUrl, const CTYContentInfo& info)
        TY_REQUIRES(m_ContentMutex);
    void StoreTexts(const CTYContentInfo& info) TY_REQUIRES(m_ContentMutex);
    std::unique_ptr<TYMediaRecord> MakeRecord(TYEventInfo info);
    std::unique_ptr<TYMediaRecord> DescribeContent() TY_EXCLUDES(m_ContentMutex);
    bool PassOn(std::unique_ptr<TYMediaRecord> record);
    void HandleServiceConnection(bool connected);
    bool StartCollecting();
    bool StartSender();
    bool ReadCollectSwitch();
    bool ReadPackageVersion(const char* pAppID, char* pServiceVersion, unsigned int len);
    static CTYKeyWatch& ProcessKeyWatch();
    bool CopyPackageVersion(appcat_pkginfo_h hPkgInfo, char* pServiceVersion, unsigned int len)
        TY_EXCLUDES(m_ContentMutex);

    const int m_nVersionMajor = 1;
    const int m_nVersionMinor = 2;
    CTYAtomic<bool> m_isDataCollectOn{false};
    CTYAtomic<std::uint32_t> m_nKeyChanges{0};
    // Whether the last successful read of the key said off. Set before the switch.
    CTYAtomic<bool> m_bKeyOff{false};
    const CTYProcess m_Process;
    CTYKeyWatch& m_KeyWatch;
    const std::array<std::string, 3> m_UrlDelimiter{"://", "/", "?"};
    ITYClock& m_Clock;
    CTYAbandonable<CTYDataSender> m_DataSender;
    CTYAbandonable<CTYEventAnalyzer> m_EventAnalyzer;
    const std::uint8_t m_PlayerID;
    // Empty while there is no playback.
    PlaybackID m_PlaybackID TY_GUARDED_BY(m_ContentMutex){};
    char m_ServiceVersion[12] TY_GUARDED_BY(m_ContentMutex){};
    char m_ServiceID[50]{};  // set once, before another thread can read it
    TYContentBlock m_ContentBlock TY_GUARDED_BY(m_ContentMutex){};
    // Owned. New content frees the previous one; the destructor does not free the last.
    TYUrl* m_pUrl TY_GUARDED_BY(m_ContentMutex) = nullptr;
    CTYMutex m_ContentMutex;
    CTYAbandonable<CTYNetworkManager> m_NetworkManager;
    std::string m_strReserved;

    // Before START: the content's start time. After START: the reference position that
    // TY_ERROR_PLAYBACK_TIME_JUMP describes, or kNoPosition.
    CTYAtomic<int> m_nReferencePosition{kNoPosition};
    std::array<CTYAtomic<std::uint32_t>, kLastCode + 1> m_LastExecuteTime{};
    CTYAtomic<std::uint32_t> m_nStartSecond{0};
    CTYAtomic<int> m_nLastPosition{kNoPosition};
    CTYAtomic<bool> m_bPaused{false};
    // Whether the next position report is recorded, because a seek has ended.
    CTYAtomic<bool> m_bReanchor{false};
    CTYAtomic<bool> m_bRenderStarted{false};
};

#endif  // TALLYRA_TYDATACOLLECTOR_H
