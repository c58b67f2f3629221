// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYFORWARDMESSAGE_H
#define TALLYRA_TYFORWARDMESSAGE_H

#include "TYForwardedBatch.h"
#include "TYMessage.h"

#include <zstd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

/// Why a message cannot be stored. The text is the reason, one word or a few.
class CTYBadMessage : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Turns batches into messages and back. docs/fleet.md describes the format; TYForwardMessage.cpp
/// says what is checked.
///
/// Threads: one.
class CTYForwardMessage {
  public:
    static constexpr std::size_t kMostRecords = 24;
    /// Of all URLs of a batch: a message without its URLs has at most 116 KB uncompressed, and
    /// servers take messages of 1 MiB.
    static constexpr std::size_t kMostUrlBytes = std::size_t{256} << 10;
    static constexpr int kCompression = 3;

    CTYForwardMessage();

    /// @param batch  at most kMostRecords records
    TYMessage Encode(const TYForwardedBatch& batch);

    /// @throws CTYBadMessage  if the message is malformed
    TYForwardedBatch Decode(const TYMessage& message);

    /// @return whether a text is a UUID in its canonical form
    static bool IsEpoch(std::string_view text);

    /// Reads what precedes the records.
    /// @param last  gets the id of the last record
    /// @return a batch without records
    /// @throws CTYBadMessage  if even that is malformed
    static TYForwardedBatch DecodeRange(const TYMessage& message, std::int64_t& last);

  private:
    struct Free {
        void operator()(ZSTD_CCtx* pContext) const { ZSTD_freeCCtx(pContext); }
        void operator()(ZSTD_DCtx* pContext) const { ZSTD_freeDCtx(pContext); }
    };

    std::unique_ptr<ZSTD_CCtx, Free> m_pCompressor;
    std::unique_ptr<ZSTD_DCtx, Free> m_pDecompressor;
    std::string m_strPlain;
};

#endif  // TALLYRA_TYFORWARDMESSAGE_H
