// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTKIT_GUARDED_H
#define TALLYRA_TESTKIT_GUARDED_H

#include <algorithm>
#include <new>
#include <string_view>

/// Turns a failed allocation into a code: the caller is C.
template <class Result, class Function>
Result Guarded(Result noMemory, Function function) {
    try {
        return function();
    } catch (const std::bad_alloc&) {
        return noMemory;
    }
}

/// @return whether regdb.h allows the key
inline bool IsKey(const char* pKey) {
    const std::string_view key = pKey == nullptr ? "" : pKey;
    const std::size_t slash = key.rfind('/');
    if (slash == std::string_view::npos || slash == 0 || slash + 1 == key.size()) {
        return false;
    }
    const std::string_view name = key.substr(slash + 1);
    constexpr std::string_view kBlanks = " \t";
    const auto isForbidden = [](char c) {
        return static_cast<unsigned char>(c) < ' ' || c == '\x7f' || c == '[' || c == ']';
    };
    return std::ranges::none_of(key, isForbidden) && name.find('=') == std::string_view::npos &&
           name.front() != '#' && kBlanks.find(name.front()) == std::string_view::npos &&
           kBlanks.find(name.back()) == std::string_view::npos;
}

/// @return whether appcat.h allows the identifier
inline bool IsApplication(const char* pIdentifier) {
    const std::string_view identifier = pIdentifier == nullptr ? "" : pIdentifier;
    return !identifier.empty() && identifier.find('/') == std::string_view::npos;
}

#endif  // TALLYRA_TESTKIT_GUARDED_H
