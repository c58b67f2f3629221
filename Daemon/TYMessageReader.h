// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYMESSAGEREADER_H
#define TALLYRA_TYMESSAGEREADER_H

#include "TYMessagePtr.h"

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// A message as it arrived. Its views are valid until the reader is used again.
struct TYArrival {
    TYMessagePtr header;    ///< the message without its body
    std::string signature;  ///< of the body
    std::size_t bodySize = 0;
    std::string_view bytes;  ///< the whole message; empty if it is too large
    std::string_view body;   ///< the body, or the beginning of one that is too large

    /// @return the message with its body; null if it is too large, or on allocation failure
    TYMessagePtr Parse() const;
};

/// Cuts a stream of bytes from a bus into messages. Memory is bounded: a message that is too large
/// is dropped as it arrives.
///
/// Threads: one.
class CTYMessageReader {
  public:
    /// Messages with longer headers are dropped if they are too large: they have no reply.
    static constexpr std::size_t kMaxHeader = std::size_t{64} << 10;

    /// @param maxMessage  size of the largest message to be read, with its header
    explicit CTYMessageReader(std::size_t maxMessage);

    /// @return where to put the bytes that arrive next; never empty if Next has returned nothing
    std::span<char> Space();
    /// Takes the first bytes of Space.
    void Take(std::size_t count);

    /// @return the next message; nothing if it has not arrived completely, or if the stream is
    ///         broken
    std::optional<TYArrival> Next();

    /// @return whether the bytes are not a sequence of messages; nothing can be read any more
    bool IsBroken() const { return m_bBroken; }

  private:
    std::size_t Size() const { return m_nEnd - m_nBegin; }
    const char* Begin() const { return m_Bytes.data() + m_nBegin; }
    void Skip(std::size_t count);
    bool HasArrived(std::size_t size, std::size_t header) const;
    TYArrival Cut(std::size_t size, std::size_t header);

    const std::size_t m_nMaxMessage;
    std::vector<char> m_Bytes;
    std::size_t m_nBegin = 0;
    std::size_t m_nEnd = 0;
    std::size_t m_nSkip = 0;  ///< bytes to be dropped, from m_nBegin on; some are still to arrive
    bool m_bBroken = false;
};

#endif  // TALLYRA_TYMESSAGEREADER_H
