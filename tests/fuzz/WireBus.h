// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FUZZ_WIREBUS_H
#define TALLYRA_TESTS_FUZZ_WIREBUS_H

#include "doubles/FakeBus.h"
#include "model/Record.h"

#include <set>
#include <string>
#include <vector>

/// A fake bus that reads the calls as the wire format has them. A call that breaks the format ends
/// the process.
class CWireBus : public CFakeBus {
  public:
    /// @return the records of all batches so far, in order
    std::vector<model::Record> Records();
    /// @return behind how many records others may be missing: a full call that was refused ends
    ///         there, and the rest of its batch was dropped
    std::set<std::size_t> Gaps();
    /// @return the names that the policy was asked for
    std::vector<std::string> PolicyNames();
};

#endif  // TALLYRA_TESTS_FUZZ_WIREBUS_H
