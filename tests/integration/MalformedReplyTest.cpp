// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PipelineFixture.h"

#include <gio/gio.h>

using receiver::Reply;

namespace {

/// A reply that breaks the rules, as GVariant text, and the line that is logged for it.
struct Malformed {
    const char* body;
    const char* line;
};

/// Names a test by its body and not by its address.
void PrintTo(const Malformed& malformed, std::ostream* pStream) {
    *pStream << malformed.body;
}

class CMalformedReplyTest : public CPipelineTest, public testing::WithParamInterface<Malformed> {};

TEST_P(CMalformedReplyTest, LosesTheBatchAndNothingElse) {
    Connect();
    GVariant* pBody = g_variant_parse(nullptr, GetParam().body, nullptr, nullptr, nullptr);
    ASSERT_NE(pBody, nullptr) << GetParam().body;
    m_pService->SetReply("SendData", Reply::WithBody(pBody));
    g_variant_unref(pBody);
    SetContent();
    Event(TY_EVENT_START);
    Event(TY_EVENT_STOP);
    ASSERT_TRUE(WaitForLog("SendData failed, data clear"));
    EXPECT_GE(m_Platform.CountLog(GetParam().line), 1U) << GetParam().body;
    // A sender that has only just started may take them in two batches.
    ASSERT_TRUE(m_pService->WaitForRecords(3, kPatience));
    m_pService->SetReply("SendData", Reply::ByRules());
    const std::size_t before = m_pService->Records().size();
    SetContent();
    Event(TY_EVENT_START);
    m_pCollector.reset();
    EXPECT_EQ(m_pService->Records().size(), before + 1);
}

// One body for each line. The unit tests of the bus port try every type in every place.
INSTANTIATE_TEST_SUITE_P(
    Each, CMalformedReplyTest,
    testing::Values(Malformed{"()", "response empty"},
                    Malformed{"(0, 1, 'text')", "no api return value"},
                    Malformed{"(0, 0, 0, 1, 0, 1)", "fail to send data[dbus fail]"},
                    Malformed{"(0, 0, 1)", "Invalid response format"},
                    Malformed{"(0, 0, 1, 1, 1, 'yes')", "Invalid response type"},
                    Malformed{"(0, 0, 1, 1, 9, 1)", "invalid type!"},
                    Malformed{"(0, 1, 5)", "String should be in DBusMessage"},
                    Malformed{"(0, 2, ['a', 'b'])", "Array of bytes should be in DBusMessage"},
                    Malformed{"([1, 2], <3>, {'k': 4})", "fail to send data[dbus fail]"}));

class COddReplyTest : public CPipelineTest {};

TEST_F(COddReplyTest, OfTwentyMebibytesLosesTheBatchAndNothingElse) {
    Connect();
    const std::vector<receiver::Value> values{1, receiver::Bytes(20 << 20)};
    m_pService->SetReply("SendData", Reply::WithValues(values));
    SetContent();
    Event(TY_EVENT_START);
    m_pCollector.reset();
    EXPECT_EQ(m_Platform.CountLog("Invalid response type"), 1U);
}

}  // namespace
