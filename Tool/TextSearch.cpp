// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TextSearch.h"

#include <glib.h>

#include <cstring>
#include <memory>

namespace {

struct Free {
    void operator()(char* pText) const { g_free(pText); }
};
using Text = std::unique_ptr<char, Free>;

// The texts of a store are valid UTF-8; the user's argument may not be.
Text Folded(sqlite3_value* pValue) {
    const auto* pText = reinterpret_cast<const char*>(sqlite3_value_text(pValue));
    if (pText == nullptr) {
        return nullptr;
    }
    const Text valid(g_utf8_make_valid(pText, -1));
    const Text normal(g_utf8_normalize(valid.get(), -1, G_NORMALIZE_ALL));
    return Text(g_utf8_casefold(normal.get(), -1));
}

// SQLite keeps the folded part for as long as it is the same constant.
void ContainsText(sqlite3_context* pContext, int /*count*/, sqlite3_value** ppValues) {
    constexpr int kPart = 1;
    const Text text = Folded(ppValues[0]);
    const auto* pPart = static_cast<const char*>(sqlite3_get_auxdata(pContext, kPart));
    Text part;
    if (pPart == nullptr) {
        part = Folded(ppValues[kPart]);
        pPart = part.get();
    }
    const bool isFound = text != nullptr && pPart != nullptr && std::strstr(text.get(), pPart);
    sqlite3_result_int(pContext, int{isFound});
    if (part != nullptr) {
        sqlite3_set_auxdata(pContext, kPart, part.release(), &g_free);
    }
}

}  // namespace

void AddTextSearch(CTYDatabase& database) {
    const int result = sqlite3_create_function_v2(database.Handle(), "contains_text", 2,
                                                  SQLITE_UTF8 | SQLITE_DETERMINISTIC, nullptr,
                                                  &ContainsText, nullptr, nullptr, nullptr);
    if (result != SQLITE_OK) {
        throw CTYDatabaseError(result, sqlite3_errstr(result));
    }
}
