// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_UNIT_LINKFIXTURE_H
#define TALLYRA_TESTS_UNIT_LINKFIXTURE_H

#include "Fixtures.h"

#include <string>

/// A test of the service link, whose log lines have a fixed file, function and line.
class CLinkTest : public CSeamTest {
  protected:
    testing::AssertionResult LinkLine(int priority, const std::string& function, int line,
                                      const std::string& text) {
        return LoggedAt(priority, kTag, FileOf(function), function, line, text);
    }

    /// @return the error lines since the last call, joined by "; ": each as "function(line) text",
    ///         those without a fixed place as the text alone
    std::string TakeErrors() {
        std::string errors;
        for (const CPlatformDouble::LogLine& line : m_Platform.Log()) {
            if (line.priority == LOGSVC_ERROR) {
                errors += (errors.empty() ? "" : "; ") + PlaceOf(line) + line.text;
            }
        }
        m_Platform.ClearLog();
        return errors;
    }

    const CFakeBus::Reply m_Answer = CFakeBus::Status(1, 1);
    /// An error of the bus, and the lines of the client about it.
    const CFakeBus::Reply m_Gone{{}, "gone"};
    const std::string m_strGone =
        "SendMessage(112) CLIENT > Dbus error: gone; SendMessage(119) REPLY IS NULL!";

  private:
    static std::string PlaceOf(const CPlatformDouble::LogLine& line) {
        if (line.tag != kTag) {
            return "";
        }
        EXPECT_EQ(line.file, FileOf(line.function));
        return line.function + "(" + std::to_string(line.line) + ") ";
    }

    static std::string FileOf(const std::string& function) {
        const bool ofProxy =
            function == "SendData" || function == "GetPolicyInfo" || function == "Kick";
        return ofProxy ? "TYServiceProxy.cpp" : "TYDbusClient.cpp";
    }
};

#endif  // TALLYRA_TESTS_UNIT_LINKFIXTURE_H
