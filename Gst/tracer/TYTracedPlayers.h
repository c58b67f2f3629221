// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_TYTRACEDPLAYERS_H
#define TALLYRA_GST_TYTRACEDPLAYERS_H

#include "TYGstObserver.h"

#include <gst/gst.h>

#include <list>
#include <memory>
#include <mutex>
#include <string>

/// The observers of all players of a process. An observer is deleted after its pipeline; those that
/// are left are ended when the process exits.
///
/// Threads: any. The mutex guards all members, and is not held while GStreamer is called.
class CTYTracedPlayers {
  public:
    CTYTracedPlayers();
    CTYTracedPlayers(const CTYTracedPlayers&) = delete;
    CTYTracedPlayers& operator=(const CTYTracedPlayers&) = delete;

    /// Sets what later observers report of themselves.
    /// @param application  empty takes the program's name
    void Configure(const std::string& application, int player);
    /// Observes the element if it is a playbin that nobody observes.
    void Attach(GstElement* pElement);
    /// Ends all observers. Blocks as CTYGstObserver::Detach does.
    void DetachAll();

  private:
    /// Its parts move without memory.
    using Observers = std::list<std::unique_ptr<CTYGstObserver>>;

    std::unique_ptr<CTYGstObserver> Make(GstElement* pElement);
    void Keep(Observers& made);

    std::mutex m_Mutex;
    // Guarded by m_Mutex.
    std::string m_strApplication;
    int m_nPlayer = 0;
    Observers m_Observers;
};

#endif  // TALLYRA_GST_TYTRACEDPLAYERS_H
