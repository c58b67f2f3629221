// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "FileWatch.h"

#include "PlatformThread.h"

#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>

namespace fs = std::filesystem;

namespace {

// Its place in the group: before the socket by which the group is known.
constexpr std::size_t kInotify = 0;

// Not IN_MODIFY: a writer in place truncates the file first.
constexpr std::uint32_t kEvents = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE |
                                  IN_DELETE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF |
                                  IN_ONLYDIR;

// Folders that come and go while they are looked for.
constexpr int kMostLooks = 64;

// Events on the folder itself have no name, nor does the one that tells that some were lost.
bool Concerns(const inotify_event& event, const char* pName, const std::string& entry) {
    return event.len == 0 || entry == pName;
}

}  // namespace

CFileWatch::CFileWatch(const std::string& path) : m_Path(fs::absolute(path).lexically_normal()) {}

bool CFileWatch::IsFor(const std::string& path) const {
    return m_Path == fs::absolute(path).lexically_normal();
}

void CFileWatch::Unwatch() {
    if (m_nWatch >= 0 && m_Descriptors.AreOurs()) {
        inotify_rm_watch(m_Descriptors.At(kInotify), m_nWatch);
    }
    m_nWatch = -1;
}

bool CFileWatch::Open() {
    return OpenDescriptors() && WatchNearestFolder();
}

bool CFileWatch::OpenDescriptors() {
    if (!m_Descriptors.IsEmpty() && m_Descriptors.AreOurs()) {
        return true;
    }
    m_Descriptors.Close();
    m_nWatch = -1;
    const bool opened = m_Descriptors.Add(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) &&
                        m_Descriptors.Add(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!opened) {
        m_Descriptors.Close();
    }
    return opened;
}

// A folder on the way may have come since the one above it was found to be the nearest.
bool CFileWatch::WatchNearestFolder() {
    fs::path entry = m_Path;
    for (int look = 0; look < kMostLooks; ++look) {
        std::error_code error;
        if (WatchFolderOf(entry)) {
            if (entry == m_Path || !fs::is_directory(entry, error)) {
                return true;
            }
            entry = m_Path;
        } else if ((errno == ENOENT || errno == ENOTDIR) && entry.has_relative_path()) {
            entry = entry.parent_path();
        } else {
            return false;
        }
    }
    return false;
}

bool CFileWatch::WatchFolderOf(const fs::path& entry) {
    const int inotifyFd = m_Descriptors.At(kInotify);
    const int watch = inotify_add_watch(inotifyFd, entry.parent_path().c_str(), kEvents);
    if (watch < 0) {
        return false;
    }
    if (m_nWatch >= 0 && m_nWatch != watch) {
        inotify_rm_watch(inotifyFd, m_nWatch);
    }
    m_nWatch = watch;
    m_strEntry = entry.filename();
    return true;
}

bool CFileWatch::Await(const CPlatformThread& thread) const {
    for (;;) {
        switch (thread.AwaitReadable(m_Descriptors)) {
            case CPlatformThread::Wait::READABLE:
                if (ReadEvents()) {
                    return true;
                }
                break;
            case CPlatformThread::Wait::STOPPED_OR_LOST:
                return true;
            case CPlatformThread::Wait::IMPOSSIBLE:
                return false;
        }
    }
}

// All that waits is read, so that many changes are looked at once.
bool CFileWatch::ReadEvents() const {
    alignas(inotify_event) std::array<char, 4096> events;
    bool concerned = false;
    for (ssize_t size = 0;
         (size = read(m_Descriptors.At(kInotify), events.data(), events.size())) > 0;) {
        for (ssize_t at = 0; at < size;) {
            const auto* pEvent = reinterpret_cast<const inotify_event*>(events.data() + at);
            concerned = concerned || Concerns(*pEvent, pEvent->name, m_strEntry);
            at += static_cast<ssize_t>(sizeof(inotify_event) + pEvent->len);
        }
    }
    return concerned;
}
