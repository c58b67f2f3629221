// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_FLEET_FLEETDEVICE_H
#define TALLYRA_TESTS_SUPPORT_FLEET_FLEETDEVICE_H

#include "Sessions.h"
#include "TYForwardedBatch.h"

/// A device of a fleet that plays without end, and sends every record once.
class CFleetDevice {
  public:
    static constexpr std::size_t kBatch = 24;  ///< as a message has at most

    /// @param number  tells the devices apart, and decides what they play
    explicit CFleetDevice(int number);

    const std::string& Name() const { return m_strName; }
    const std::string& Epoch() const { return m_strEpoch; }

    /// @param now  the time of the arrivals, and the begin of playbacks: nanoseconds
    TYForwardedBatch Next(std::int64_t now, std::size_t records = kBatch);
    std::vector<TYForwardedBatch> NextBatches(std::size_t count, std::int64_t now);

  private:
    std::string m_strName;
    std::string m_strEpoch;
    CDice m_Dice;
    Session m_Session;
    std::size_t m_nNext = 0;
    int m_nSessions = 0;
    std::int64_t m_nSent = 0;
};

/// @return the records of a batch from one index on, as a device sends them that begins there
TYForwardedBatch PartOf(const TYForwardedBatch& batch, std::size_t begin, std::size_t count);

#endif  // TALLYRA_TESTS_SUPPORT_FLEET_FLEETDEVICE_H
