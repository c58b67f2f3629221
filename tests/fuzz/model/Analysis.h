// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FUZZ_MODEL_ANALYSIS_H
#define TALLYRA_TESTS_FUZZ_MODEL_ANALYSIS_H

#include "model/Record.h"

#include <optional>

namespace model {

/// What is derived from the stream of records.
class CAnalysis {
  public:
    /// @param now  when the record is looked at
    /// @return the record that stands behind this one, if any
    std::optional<Record> Derive(const Record& record, Time now);

  private:
    std::optional<Record> Measure(const Record& record, Time now);
    std::int32_t SinceAnchor(std::int32_t position) const;

    // Where play time counts from. A stream that begins in the middle counts from 0.
    std::optional<std::int32_t> m_Anchor = 0;
    std::optional<Time> m_StallBegan;
    Time m_Started;
};

}  // namespace model

#endif  // TALLYRA_TESTS_FUZZ_MODEL_ANALYSIS_H
