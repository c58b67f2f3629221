// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_TYBUSREADER_H
#define TALLYRA_GST_TYBUSREADER_H

#include "TYEventQueue.h"
#include "TYFrameCount.h"

#include <gst/gst.h>

#include <memory>
#include <mutex>
#include <utility>

/// Reads the messages of a pipeline's bus, on the thread that posts them.
///
/// Threads: any may call Read, several at the same time.
class CTYBusReader {
  public:
    /// @param pPipeline  only compared with the source of a message
    CTYBusReader(const GstElement* pPipeline, std::shared_ptr<CTYEventQueue> pQueue,
                 std::shared_ptr<CTYFrameCount> pFrames)
        : m_pPipeline(pPipeline), m_pQueue(std::move(pQueue)), m_pFrames(std::move(pFrames)) {}

    /// Hands over what the message tells; the message stays the caller's. Throws nothing.
    void Read(GstMessage* pMessage);

  private:
    void ReadAny(GstMessage* pMessage);
    void ReadFromPipeline(GstMessage* pMessage);
    void ReadState(GstMessage* pMessage);
    void ReadBuffering(GstMessage* pMessage);
    void ReadError(GstMessage* pMessage);
    void ReadTags(GstMessage* pMessage);
    void ReadStatistics(GstMessage* pMessage);
    void ReadQos(GstMessage* pMessage);

    // Set once.
    const void* const m_pPipeline;
    const std::shared_ptr<CTYEventQueue> m_pQueue;
    const std::shared_ptr<CTYFrameCount> m_pFrames;

    // Thousands of these messages come, from several elements; only changes are handed over, in the
    // order in which they are noted.
    std::mutex m_BufferingMutex;
    bool m_bLow = false;  // guarded by m_BufferingMutex
};

#endif  // TALLYRA_GST_TYBUSREADER_H
