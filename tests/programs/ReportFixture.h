// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_PROGRAMS_REPORTFIXTURE_H
#define TALLYRA_TESTS_PROGRAMS_REPORTFIXTURE_H

#include "CommandFixture.h"

/// Texts that try to leave their place in a page.
inline const std::string kHostileTitle =
    "</script><script>document.title='owned'</script><!--<script>&lt;\"'`${1}\\";
inline const std::string kHostileApplication = "\"><img src=x onerror=alert(1)>";
inline const std::string kHostilePlayback = "<b>'\"&amp;</b>";

/// A test on a store of its own, with the report of it.
class CReportTest : public CCommandTest {
  protected:
    void StoreHostileTexts() {
        const std::vector<Step> failed = {{0, TY_EVENT_START},
                                          {10, TY_EVENT_RENDER_START},
                                          {20, kPlayerError},
                                          {30, TY_EVENT_STOP, 0, TY_STOP_FATAL_ERROR}};
        Store({kHostileApplication, kHostilePlayback, kHostileTitle, "u", ":1.7"}, failed);
        // A right-to-left override, a line separator and bytes that are no UTF-8.
        Store({"\xff\xfe", "p2", "\xe2\x80\xaegpj\xe2\x80\xa8.\xc3\x28\xf0", "u", ":1.8"}, failed);
    }

    /// Runs the command and expects it to succeed.
    /// @return the file
    std::string WriteReport(std::vector<std::string> options = {}) {
        const std::string file = File("report.html");
        options.insert(options.begin(), {"report", "-o", file});
        const Result result = Run(options);
        EXPECT_EQ(result.code, 0) << result.err;
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(result.err, testing::AnyOf("", "tallyra: no playbacks match\n"));
        return file;
    }

    /// @return the text of the page's element with the data
    static std::string DataText(const std::string& page) {
        const std::string begin = "id=\"data\">";
        const std::size_t from = page.find(begin) + begin.size();
        return page.substr(from, page.find('<', from) - from);
    }
    nlohmann::json ReportData(const std::vector<std::string>& options = {}) {
        return nlohmann::json::parse(DataText(ReadFile(WriteReport(options))));
    }
};

#endif  // TALLYRA_TESTS_PROGRAMS_REPORTFIXTURE_H
