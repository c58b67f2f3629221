// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYCREDENTIALS_H
#define TALLYRA_TYCREDENTIALS_H

#include "TYNkey.h"

#include <string>
#include <string_view>

/// A credentials file: a token that says who one is and what that may do, and the key that proves
/// it.
///
/// Threads: const functions may run on any thread.
class CTYCredentials {
  public:
    /// @throws std::runtime_error  if the file cannot be read or is no credentials file
    explicit CTYCredentials(const std::string& path);

    /// @return the name that they were made for; empty if the token has none
    std::string Name() const;
    const std::string& Token() const { return m_strToken; }
    /// Signs what a server sent.
    Bytes Sign(std::string_view text) const { return m_Key.Sign(text); }

  private:
    std::string m_strToken;
    CTYNkey m_Key;
};

#endif  // TALLYRA_TYCREDENTIALS_H
