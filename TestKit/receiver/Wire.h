// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTKIT_RECEIVER_WIRE_H
#define TALLYRA_TESTKIT_RECEIVER_WIRE_H

#include <gio/gio.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <variant>
#include <vector>

/// @file
/// The format of calls and records on the bus, implemented a second time. It shares no code with
/// the library, so that the same mistake cannot hide on both sides.
///
/// All functions are pure and may be called from any thread.

namespace receiver {

using Bytes = std::vector<std::uint8_t>;

/// One value of a call or a reply: an INT32, a STRING or an array of BYTE.
using Value = std::variant<std::int32_t, std::string, Bytes>;

/// Writes values as triples (index, type, payload).
/// @return a new floating reference to a tuple
GVariant* EncodeBody(const std::vector<Value>& values);

/// A decoded record: its fields in the order of the image.
struct Record {
    std::int8_t playerId = 0;
    std::uint8_t networkType = 0;  ///< 255 unknown, 0 disconnected, 1 Ethernet, 2 Wi-Fi
    std::string playbackId;
    std::string serviceVersion;
    std::string serviceId;
    std::uint8_t event = 0;
    std::int32_t param1 = 0;
    std::int32_t param2 = 0;
    std::int32_t duration = 0;
    std::uint32_t urlSlot = 0;  ///< has no meaning outside of the sending process
    std::uint8_t drmType = 0;
    std::uint8_t contentType = 0;
    std::string channelId;
    std::string title;
    std::string genre;
    std::string customInfo;
    std::int32_t seconds = 0;      ///< since the epoch; both 0: the clock could not be read
    std::int32_t nanoseconds = 0;  ///< within the second
    std::string strProblem;        ///< all problems; empty for a valid image
};

/// Reads the image of one record.
/// @param image  4800 bytes; of another size only strProblem is set
Record DecodeRecord(std::span<const std::uint8_t> image);

/// A record of a batch.
struct ReceivedRecord {
    Record record;
    std::string strUrl;
};

/// One call.
struct Call {
    std::string strFunction;              ///< value 0; empty when that is not a string
    std::vector<Value> values;            ///< the other values, up to the first malformed one
    std::vector<ReceivedRecord> records;  ///< of "SendData"
    std::string strSender;                ///< unique bus name
    std::string strProblem;               ///< what is malformed; empty for a valid call
};

/// Reads a call strictly: the indices of its triples must count from 0, every payload must have the
/// type that precedes it, and the function must have the right arguments.
/// @param pBody  the tuple of a message; null is an empty body
Call DecodeCall(GVariant* pBody);

}  // namespace receiver

#endif  // TALLYRA_TESTKIT_RECEIVER_WIRE_H
