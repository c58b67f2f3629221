// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

TEST(CGstSymbolsTest, OnlyTheThreeFunctionsLeaveTheLibrary) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> pOutput(
        popen("nm -D --defined-only -f posix " LIBTALLYRA_GST, "r"), pclose);
    ASSERT_NE(pOutput, nullptr);
    std::vector<std::string> functions;
    char line[512];
    while (std::fgets(line, sizeof(line), pOutput.get()) != nullptr) {
        std::string name;
        std::string kind;
        std::istringstream(line) >> name >> kind;
        if (kind != "A") {
            functions.push_back(name);
        }
    }
    EXPECT_THAT(functions, testing::ElementsAre("tallyra_gst_attach@@TALLYRA_GST_1.0",
                                                "tallyra_gst_describe@@TALLYRA_GST_1.0",
                                                "tallyra_gst_detach@@TALLYRA_GST_1.0"));
}

}  // namespace
