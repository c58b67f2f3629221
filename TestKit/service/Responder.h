// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTKIT_RESPONDER_H
#define TALLYRA_TESTKIT_RESPONDER_H

#include "Options.h"
#include "receiver/Receiver.h"

#include <cstddef>

/// Decides how the service answers, well or as it is told to misbehave.
///
/// Threads: one, that of the receiver.
class CResponder {
  public:
    explicit CResponder(Misbehaviours what) : m_What(std::move(what)) {}

    receiver::Response Answer(const receiver::Call& call);

  private:
    bool Misbehaves(const receiver::Call& call) const;
    bool IsRefused(const std::string& application) const;

    const Misbehaviours m_What;
    int m_nBatches = 0;
    std::size_t m_nMalformed = 0;
};

#endif  // TALLYRA_TESTKIT_RESPONDER_H
