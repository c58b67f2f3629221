// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_PLATFORM_REGDBFIXTURE_H
#define TALLYRA_TESTS_PLATFORM_REGDBFIXTURE_H

#include "Callbacks.h"
#include "TemporaryFolder.h"

#include "regdb.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

constexpr const char* kKey = "db/tallyra/log_on";
constexpr const char* kStoreName = "store/regdb.ini";

inline std::string StoreText(const std::string& value) {
    return "[db/tallyra]\nlog_on=" + value + "\n";
}

/// A host with a settings store of its own, and callbacks that watch its key.
class CRegdbTest : public testing::Test {
  protected:
    CRegdbTest() { setenv("REGDB_FILE", (m_Folder.Path() / kStoreName).c_str(), 1); }
    ~CRegdbTest() override { Ignore(); }

    /// Replaces the store.
    void Store(const std::string& text) const { m_Folder.Replace(kStoreName, text); }
    void Store(int value) const { Store(StoreText(std::to_string(value))); }

    static int Watch(CCallbacks& callbacks) {
        return regdb_notify_key_changed(kKey, &CCallbacks::OnKey, &callbacks);
    }
    static int Ignore() { return regdb_ignore_key_changed(kKey, &CCallbacks::OnKey); }

    CTemporaryFolder m_Folder;
    CCallbacks m_Callbacks;
};

#endif  // TALLYRA_TESTS_PLATFORM_REGDBFIXTURE_H
