// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYDataCollector.h"

#include "TYLog.h"

#include "appcat.h"

#include <unistd.h>

#include <cstring>
#include <memory>

#define TY_LOG_TAG TY_TAG

// The switch: m_isDataCollectOn.
//
// Records are delivered only if two settings allow it: the settings key of the device, and the
// service's policy for the application. Until the policy is known, the key alone decides whether
// records are queued. Different threads read the two: the platform's settings thread reports
// changes of the key; the connection check asks for the policy once the service owns its bus name,
// and the settings thread asks again when the key goes on.
//
// Reading the key and asking for the policy take time, up to 3 s if the service does not answer.
// The key may change meanwhile, so a thread may store a value that is out of date. Three rules make
// the newest "off" win without a lock that a player would have to wait for:
//
//  - m_nKeyChanges counts the changes. ReadCollectSwitch repeats its read if the key changed during
//    it, so the switch ends at the value of the last change.
//  - m_bKeyOff records that the last successful read returned off. It is set before the switch.
//    RequestServicePolicy checks it before and after it stores a policy that allows collection. If
//    the key goes off before the second check, that check clears the switch; if it goes off later,
//    the settings thread clears the switch.
//  - A failed read of the key switches collection off but does not change m_bKeyOff, because the
//    device has not refused. A policy that allows collection then switches it on again.
//
// What must always hold: once the key has gone off and its callback has returned, the switch is off
// until the key goes on again. The switch is on only if a sender thread was started for it, or the
// connection check is still to start one; StartSender clears the switch if it cannot start one.

namespace {

struct DestroyAppInfo {
    using pointer = appcat_appinfo_h;
    void operator()(appcat_appinfo_h hAppInfo) const { appcat_appinfo_destroy_appinfo(hAppInfo); }
};
struct DestroyPkgInfo {
    using pointer = appcat_pkginfo_h;
    void operator()(appcat_pkginfo_h hPkgInfo) const { appcat_pkginfo_destroy_pkginfo(hPkgInfo); }
};
using AppInfoPtr = std::unique_ptr<void, DestroyAppInfo>;
using PkgInfoPtr = std::unique_ptr<void, DestroyPkgInfo>;

struct CollectionKeyWatch : CTYKeyWatch {
    CollectionKeyWatch() : CTYKeyWatch(&CTYDataCollector::CollectOnOffCallback) {}
};

}  // namespace

CTYKeyWatch& CTYDataCollector::ProcessKeyWatch() {
    static CTYPerProcess<CollectionKeyWatch> watch;
    return watch.Get();
}

bool CTYDataCollector::GetCollectOnOff(bool* pOn) {
    int value = 0;
    const int result = regdb_get_bool(CTYKeyWatch::kKey, &value);
    if (result != 0) {
        TY_LOG_ERROR("regdb_get_bool REGDBKEY_TYLOG_ONOFF failed %d", result);
        *pOn = false;
        return false;
    }
    *pOn = value == 1;
    return true;
}

// Repeats the read if the key has changed during it, so that no outdated value is kept.
bool CTYDataCollector::ReadCollectSwitch() {
    bool on = false;
    bool read = false;
    std::uint32_t changes = 0;
    do {
        changes = m_nKeyChanges;
        read = GetCollectOnOff(&on);
        if (read) {
            m_bKeyOff = !on;
        }
        m_isDataCollectOn = on;
    } while (changes != m_nKeyChanges);
    return read;
}

bool CTYDataCollector::RegisterCollectOnOffCallback() {
    const int result = m_KeyWatch.Add(this);
    if (result != 0) {
        TY_LOG_ERROR("regdb_notify_key_changed REGDBKEY_TYLOG_ONOFF error : %d", result);
    }
    return result == 0;
}

bool CTYDataCollector::UnRegisterCollectOnOffCallback() {
    const int result = m_KeyWatch.Remove(this);
    if (result != 0) {
        TY_LOG_ERROR("regdb_ignore_key_changed REGDBKEY_TYLOG_ONOFF error : %d", result);
    }
    return result == 0;
}

void CTYDataCollector::CollectOnOffCallback(struct _keynode_t* /*pNode*/, void* pData) {
    if (pData == nullptr) {
        TY_LOG_ERROR("pData is NULL!");
        return;
    }
    auto* pThis = static_cast<CTYDataCollector*>(pData);
    pThis->m_nKeyChanges.Increment();
    if (!pThis->ReadCollectSwitch()) {
        TY_LOG_ERROR("GetCollectOnOff failed!!");
        return;
    }
    const bool on = pThis->m_isDataCollectOn;
    TY_LOG_INFO("m_isDataCollectOn : [%d]", on);
    if (on) {
        pThis->Start();
    } else {
        pThis->m_EventAnalyzer->RequestTerminate();
        pThis->m_DataSender->RequestTerminate();
        pThis->Reset();
    }
}

void CTYDataCollector::Start() {
    if (!m_isDataCollectOn) {
        return;
    }
    RequestServicePolicy();
    if (!m_isDataCollectOn) {
        Reset();
        return;
    }
    m_EventAnalyzer->Start();
    StartSender();
}

// Without a sender thread the switch goes off, because records would only fill the host's memory.
bool CTYDataCollector::StartSender() {
    const bool started = m_DataSender->Start();
    if (!started) {
        m_isDataCollectOn = false;
    }
    return started;
}

// Checks the key before and after storing the answer; see the head of this file.
int CTYDataCollector::RequestServicePolicy() {
    std::string appID(m_ServiceID);
    TY_LOG_DEBUG("appID : %s", appID.c_str());
    int info = 0;
    const int result = m_DataSender->GetPolicyInfo(appID, &info);
    TY_LOG_INFO("result : %d, pInfo : %d ", result, info);
    m_isDataCollectOn = result != 0 && info != 0 && !m_bKeyOff;
    if (m_bKeyOff) {
        m_isDataCollectOn = false;
    }
    return result;
}

void CTYDataCollector::HandleServiceConnection(bool connected) {
    if (connected) {
        if (StartCollecting()) {
            return;
        }
    } else {
        TY_LOG_ERROR("Can't connect to service. Stop logging");
        m_isDataCollectOn = false;
    }
    m_EventAnalyzer->RequestTerminate();
    m_DataSender->ClearCollectedData();
    Reset();
}

bool CTYDataCollector::StartCollecting() {
    RegisterCollectOnOffCallback();
    ReadCollectSwitch();
    if (m_isDataCollectOn) {
        RequestServicePolicy();
    }
    if (!m_isDataCollectOn) {
        return false;
    }
    return StartSender();
}

// Clears the identifier last: as soon as it is empty, a player may start the next playback, which
// must not find flags of this one.
void CTYDataCollector::Reset() {
    m_nReferencePosition = kNoPosition;
    m_nLastPosition = kNoPosition;
    m_bPaused = false;
    m_bReanchor = false;
    m_bRenderStarted = false;
    CTYLock lock(m_ContentMutex);
    FillWithZeros(m_PlaybackID);
}

bool CTYDataCollector::GetServiceVersion(const char* pAppID, char* pServiceVersion,
                                         unsigned int len) {
    if (!ReadPackageVersion(pAppID, pServiceVersion, len)) {
        return false;
    }
    TY_LOG_DEBUG("pServiceVersion : %.*s", static_cast<int>(len), pServiceVersion);
    return true;
}

bool CTYDataCollector::ReadPackageVersion(const char* pAppID, char* pServiceVersion,
                                          unsigned int len) {
    if (pAppID == nullptr) {
        TY_LOG_ERROR("pAppID is NULL");
        return false;
    }
    appcat_appinfo_h hAppInfo = nullptr;
    int result = appcat_appinfo_get_usr_appinfo(pAppID, getuid(), &hAppInfo);
    if (result != 0 || hAppInfo == nullptr) {
        TY_LOG_ERROR("appcat_appinfo_get_usr_appinfo error : %d", result);
        return false;
    }
    AppInfoPtr appInfo(hAppInfo);
    char* pPkgID = nullptr;
    result = appcat_appinfo_get_pkgid(appInfo.get(), &pPkgID);
    if (result != 0 || pPkgID == nullptr) {
        TY_LOG_ERROR("appcat_appinfo_get_pkgid error : %d", result);
        return false;
    }
    appcat_pkginfo_h hPkgInfo = nullptr;
    result = appcat_pkginfo_get_pkginfo(pPkgID, &hPkgInfo);
    if (result != 0 || hPkgInfo == nullptr) {
        appInfo.reset();
        TY_LOG_ERROR("appcat_pkginfo_get_pkginfo error : %d", result);
        return false;
    }
    const PkgInfoPtr pkgInfo(hPkgInfo);
    return CopyPackageVersion(pkgInfo.get(), pServiceVersion, len);
}

bool CTYDataCollector::CopyPackageVersion(appcat_pkginfo_h hPkgInfo, char* pServiceVersion,
                                          unsigned int len) {
    char* pVersion = nullptr;
    const int result = appcat_pkginfo_get_version(hPkgInfo, &pVersion);
    // Some platforms return positive codes here on success.
    if (result < 0 || pVersion == nullptr) {
        TY_LOG_ERROR("appcat_pkginfo_get_version error : %d", result);
        return false;
    }
    if (pServiceVersion == nullptr) {
        TY_LOG_ERROR("pServiceVersion is NULL, so can not strncpy");
        return false;
    }
    CTYLock lock(m_ContentMutex);
    std::strncpy(pServiceVersion, pVersion, len);
    m_ServiceVersion[sizeof(m_ServiceVersion) - 1] = '\0';
    return true;
}

void CTYDataCollector::SetServiceID(const char* pServiceID) {
    if (pServiceID == nullptr) {
        TY_LOG_ERROR("pServiceID is NULL.");
        return;
    }
    CopyText(m_ServiceID, pServiceID);
    GetServiceVersion(m_ServiceID, m_ServiceVersion, sizeof(m_ServiceVersion));
}

bool CTYDataCollector::GetCurrentTime(TYTime* pTime) {
    timespec now{};
    if (m_Clock.GetRealTime(&now) != 0) {
        TY_LOG_ERROR("clock_gettime failed!!!");
        *pTime = {};
        return false;
    }
    *pTime = {static_cast<std::int32_t>(now.tv_sec), static_cast<std::int32_t>(now.tv_nsec)};
    return true;
}
