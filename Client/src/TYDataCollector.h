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

/// What a player calls: turns each call into at most one record, by the rules of collection, and
/// passes that on to the analyzer.
///
/// The rules of the events stand in TYDataCollector.cpp; the description of the content in
/// TYDataCollectorContent.cpp; the collection switch, the service's policy and the identity of the
/// application in TYDataCollectorSwitch.cpp.
///
/// Threads: players call the interface from any thread; the platform's settings thread enters
/// CollectOnOffCallback; the sender's connection check enters HandleServiceConnection. The switch
/// and the flags and positions of the playback are atomics. The content mutex guards the playback
/// identifier, the description of the content and the package version, so that a record never has
/// half of two. It is held for a copy, never through an allocation, a log line or a call into the
/// platform, and never together with another lock.
///
/// Processes: in a forked child a collector does nothing. Calls return without effect, and the
/// destructor leaves the sender, the analyzer and the network manager as they are.
class CTYDataCollector : public virtual ITYDataCollector {
  public:
    /// @param bus    how to reach the system bus
    /// @param clock  how to tell time and to wait
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

    /// Replaces a URL by its path without server and query. A URL with a server and no path becomes
    /// "://" and the server.
    void GetPathFromUrl(std::string* pUrl);

    /// Makes a record of an event and passes it on, unless collection is off.
    void InsertData(TYEventInfo info);

    /// Reads the collection key. Only 1 means on.
    /// @param pOn  filled in any case; false when the key cannot be read
    /// @return whether the key could be read
    bool GetCollectOnOff(bool* pOn);
    /// Starts to watch the collection key.
    bool RegisterCollectOnOffCallback();
    /// Ends that; no callback runs once it has returned.
    bool UnRegisterCollectOnOffCallback();
    /// The key has changed; `pData` is the collector.
    static void CollectOnOffCallback(struct _keynode_t* pNode, void* pData);

    /// Asks the service whether this application may be collected, and sets the switch by it.
    /// @return non-zero when the service answered
    int RequestServicePolicy();
    /// Starts collecting, if switch and policy allow.
    void Start();
    /// Forgets the playback.
    void Reset();

    /// Looks up the version of an application's package.
    /// @param pServiceVersion  filled with `len` characters at the most
    bool GetServiceVersion(const char* pAppID, char* pServiceVersion, unsigned int len);
    /// Sets the application's identifier, up to 49 characters, and looks up its package version.
    void SetServiceID(const char* pServiceID);
    /// Reads the wall clock.
    /// @param pTime  filled in any case; zero when the clock cannot be read
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
    // Whether the last read of the key that worked said off. Set before the switch is.
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
    char m_ServiceID[50]{};  // set once, before there is another thread
    TYContentBlock m_ContentBlock TY_GUARDED_BY(m_ContentMutex){};
    // Owned; new content releases it, the destructor does not.
    TYUrl* m_pUrl TY_GUARDED_BY(m_ContentMutex) = nullptr;
    CTYMutex m_ContentMutex;
    CTYAbandonable<CTYNetworkManager> m_NetworkManager;
    std::string m_strReserved;

    // Before START the content's start time; then the position of the last heartbeat.
    CTYAtomic<int> m_nReferencePosition{kNoPosition};
    std::array<CTYAtomic<std::uint32_t>, 256> m_LastExecuteTime{};
    CTYAtomic<std::uint32_t> m_nStartSecond{0};
    CTYAtomic<int> m_nLastPosition{kNoPosition};
    CTYAtomic<bool> m_bPaused{false};
    CTYAtomic<bool> m_bReanchor{false};
    CTYAtomic<bool> m_bRenderStarted{false};
};

#endif  // TALLYRA_TYDATACOLLECTOR_H
