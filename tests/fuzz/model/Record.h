// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FUZZ_MODEL_RECORD_H
#define TALLYRA_TESTS_FUZZ_MODEL_RECORD_H

#include <cstdint>
#include <string>
#include <string_view>

/// The reference model: the rules of collection implemented a second time, in values and without
/// threads. It shares no code with the library, so that the same mistake cannot hide on both sides.
namespace model {

struct Time {
    std::int32_t sec = 0;
    std::int32_t nsec = 0;
    bool operator==(const Time&) const = default;
};

/// The fields of a record.
struct Record {
    std::int32_t playerID = 0;     // -128 to 127
    std::int32_t networkType = 0;  // 0 to 255
    std::string playbackID;
    std::string serviceVersion;
    std::string serviceID;
    std::int32_t event = 0;  // 0 to 255
    std::int32_t param1 = 0;
    std::int32_t param2 = 0;
    std::int32_t duration = 0;
    std::int32_t drmType = 0;      // 0 to 255
    std::int32_t contentType = 0;  // 0 to 255
    std::string channelID;
    std::string title;
    std::string genre;
    std::string customInfo;
    std::string url;
    Time time;
};

/// @return the record on the wire, without its URL: bytes between fields and after texts are zero
std::string ImageOf(const Record& record);

/// @return the text as a field of that width holds it: truncated, and up to the first NUL
std::string Cut(std::string_view text, std::size_t width);

/// @return the text as a D-Bus string: up to its first NUL, each byte that is not part of a UTF-8
///         character replaced by U+FFFD
std::string Valid(std::string_view text);

/// @return the text from the first slash after "scheme://" to the query. A slash inside the query
///         counts too. Without a slash it is "://" and the server. Without a scheme the whole text
///         is a path.
std::string PathOf(std::string_view url);

/// @return the kept part of a content's URL: up to its first NUL, or only its path
std::string KeptUrl(std::string_view url, bool pathOnly);

}  // namespace model

#endif  // TALLYRA_TESTS_FUZZ_MODEL_RECORD_H
