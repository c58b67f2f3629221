// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_ITYSERVICE_H
#define TALLYRA_ITYSERVICE_H

#include "TYMediaData.h"

#include <string>
#include <vector>

/// The calls of the collection service that the sender makes.
///
/// Threads: those of the implementation.
class ITYService {
  public:
    virtual ~ITYService() = default;

    /// Delivers the records of one call, at most CTYBatch::kMaxCallRecords. `urls` holds the URL of
    /// each record at the same index.
    /// @return false if the call fails or the service refuses the records
    virtual bool SendData(std::vector<TYMediaData>& records, std::vector<std::string>& urls) = 0;

    /// Asks for the policy of an application.
    /// @param name     identifier of the application
    /// @param pPolicy  receives the policy; 0 on failure
    /// @return false when the call fails
    virtual bool GetPolicyInfo(std::string& name, int* pPolicy) = 0;
};

#endif  // TALLYRA_ITYSERVICE_H
