// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSUBJECTS_H
#define TALLYRA_TYSUBJECTS_H

#include <string>
#include <string_view>

/// The subjects on NATS. The keys of devices and collectors allow exactly these.
namespace TYSubjects {

inline constexpr const char* kStream = "TALLYRA";         ///< records on their way
inline constexpr const char* kBadStream = "TALLYRA_BAD";  ///< messages that cannot be stored
inline constexpr const char* kConsumer = "collect";       ///< shared by all collectors
inline constexpr const char* kAllRecords = "tallyra.records.*.*";
inline constexpr const char* kAllBad = "tallyra.bad.*";
inline constexpr const char* kAllAsks = "tallyra.ask.*";

/// Records: a device publishes.
inline std::string Records(const std::string& device, const std::string& epoch) {
    return "tallyra.records." + device + '.' + epoch;
}
/// A device asks how far it is stored.
inline std::string Ask(const std::string& device) {
    return "tallyra.ask." + device;
}
/// Watermarks: collectors publish.
inline std::string Stored(const std::string& device) {
    return "tallyra.stored." + device;
}
inline std::string Bad(const std::string& device) {
    return "tallyra.bad." + device;
}
/// Where answers to a device go, so that no device reads those of another.
inline std::string Inbox(const std::string& device) {
    return "_INBOX." + device;
}

/// @param number  of the part, from 0
/// @return a part of a subject; empty if it has fewer
inline std::string_view Part(std::string_view subject, int number) {
    for (; number > 0; --number) {
        const std::size_t dot = subject.find('.');
        if (dot == subject.npos) {
            return {};
        }
        subject.remove_prefix(dot + 1);
    }
    return subject.substr(0, subject.find('.'));
}

/// @return whether a text can be a device's name: 1 to 64 letters, digits, '_' and '-'
inline bool IsDeviceName(std::string_view name) {
    constexpr std::string_view kAllowed =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-";
    return !name.empty() && name.size() <= 64 && name.find_first_not_of(kAllowed) == name.npos;
}

}  // namespace TYSubjects

#endif  // TALLYRA_TYSUBJECTS_H
