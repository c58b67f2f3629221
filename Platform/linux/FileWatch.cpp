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

// inotify watches folders that exist. But the settings file and the folders on its path may be
// created after the watch was requested, and may be removed and created again later.
//
// So one watch is set on the nearest existing folder: the file's own folder, otherwise its parent,
// and so on. Only the events of one entry in that folder count: the file, or the first missing
// folder on the path. When that folder appears, the watch moves down to it. A folder may also
// appear between the failed attempt to watch it and the watch on its parent; no event reports that.
// So after setting a watch the code checks the entry once more, and if it is a folder now, starts
// again from the file. The number of attempts is bounded, in case folders appear and disappear all
// the time; after the last attempt the caller polls once a second.
//
// The events are chosen so that a half-written file is not read: a writer in place truncates the
// file first, which IN_MODIFY would report. IN_CLOSE_WRITE reports the finished file.
//
// What must always hold: after Open has returned true, every change of the file ends Await. The one
// exception is a folder above the watched one that is moved away; nothing reports that.
//
// An inotify descriptor cannot be distinguished from one that the host has opened, see
// GuestDescriptors.cpp. So a socket is opened with it that serves only to identify the pair.

namespace {

// The index in m_Descriptors; the socket has the next one.
constexpr std::size_t kInotify = 0;

constexpr std::uint32_t kEvents = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE |
                                  IN_DELETE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF |
                                  IN_ONLYDIR;

constexpr int kMaxAttempts = 64;

// Events without a name count too: those of the folder itself, and the report of a full event
// queue.
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

bool CFileWatch::WatchNearestFolder() {
    fs::path entry = m_Path;
    for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
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

// Reads all pending events, so that a burst of changes is checked once.
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
