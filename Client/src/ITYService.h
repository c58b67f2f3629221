// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_ITYSERVICE_H
#define TALLYRA_ITYSERVICE_H

#include "TYMediaData.h"

#include <string>
#include <vector>

/// What the collection service does for the library.
class ITYService {
  public:
    virtual ~ITYService() = default;

    /// Delivers a batch. `urls` holds the URL of each record at the same place.
    /// @return whether the service has accepted the batch
    virtual bool SendData(std::vector<TYMediaData>& records, std::vector<std::string>& urls) = 0;

    /// Asks for the policy of a name.
    /// @param pPolicy  filled with the policy; 0 on failure
    /// @return whether the service has answered
    virtual bool GetPolicyInfo(std::string& name, int* pPolicy) = 0;
};

#endif  // TALLYRA_ITYSERVICE_H
