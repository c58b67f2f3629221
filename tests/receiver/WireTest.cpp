// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// What the receiver refuses. What it accepts shows in the tests that use it.

#include "Test.h"
#include "receiver/Wire.h"

using namespace std::string_view_literals;

namespace receiver {
namespace {

Call Decode(GVariant* pBody) {
    g_variant_ref_sink(pBody);
    Call call = DecodeCall(pBody);
    g_variant_unref(pBody);
    return call;
}

TEST(WireCall, IsRefusedWhenMalformed) {
    const std::pair<const char*, const char*> calls[] = {
        {"(0, 1, 'Kick', 0, 1, 'Kick')", "value 1: a wrong index"},
        {"('0', 1, 'Kick')", "value 0: a wrong index without the name of a function"},
        {"(0, @y 1, 'Kick')", "value 0: a type that is no INT32 without the name of a function"},
        {"(0, 1, 'Kick', 1, 3, 7)", "value 1: type 3 with a payload of type 'i'"},
        {"(0, 1, 'Kick', 1, -1, 7)", "value 1: type -1 with a payload of type 'i'"},
        {"(0, 1, 'Kick', 1, 1, 7)", "value 1: type 1 with a payload of type 'i'"},
        {"(0, 1, 'Kick', 1, 2, 'text')", "value 1: type 2 with a payload of type 's'"},
        {"(0, 1, 'Kick', 1, 0, @u 7)", "value 1: type 0 with a payload of type 'u'"},
        {"(0, 1, 'Kick', 1, 1)", "value 1: the body ends inside a triple"},
        {"(0, 0, 5)", " without the name of a function"},
        {"()", " without the name of a function"},
        {"(0, 1, 'Sing')", "unknown function"},
        {"(0, 1, 'Kick', 1, 1, 'Hit')", "the only argument must be the string \"Kick\""},
        {"(0, 1, 'GetPolicyInfo', 1, 0, 5)", "the only argument must be a string"},
        {"(0, 1, 'GetPolicyInfo', 1, 1, 'app')", ""}};
    for (const auto& [pText, pProblem] : calls) {
        EXPECT_EQ(Decode(g_variant_new_parsed(pText)).strProblem, pProblem) << pText;
    }
}

/// Writes bytes into the image of a record of zeros, which is valid.
Bytes ImageWith(std::size_t nOffset, std::string_view bytes) {
    Bytes image(4800, 0);
    std::copy(bytes.begin(), bytes.end(), image.begin() + static_cast<std::ptrdiff_t>(nOffset));
    return image;
}

TEST(WireCall, IsRefusedWithAMalformedBatch) {
    const char* pOrder = "not images and then as many URLs";
    const Bytes image = ImageWith(92, "\x01");
    const std::pair<std::vector<Value>, std::string> batches[] = {
        {{"SendData", image, image, "a", "b"}, ""},
        {{"SendData"}, ""},
        {{"SendData", image, image, "a"}, std::string("an odd number of arguments; ") + pOrder},
        {{"SendData", image, "a", image, "b"}, pOrder},
        {{"SendData", image, 5}, pOrder},
        {{"SendData", image, Bytes(4799), "a", "b"}, "an image of 4799 bytes; "}};
    for (const auto& [values, problem] : batches) {
        EXPECT_EQ(Decode(EncodeBody(values)).strProblem, problem);
    }
}

TEST(WireRecord, IsRefusedWithATextWithoutEndOrAnInvalidTime) {
    const struct {
        std::size_t offset;
        std::string bytes;
        const char* pProblem;
    } cases[] = {{2, std::string(25, 'x'), ""},
                 {27, std::string(12, 'x'), "serviceVersion without a NUL; "},
                 {39, std::string(50, 'x'), "serviceID without a NUL; "},
                 {114, std::string(256, 'x'), "channelID without a NUL; "},
                 {370, std::string(256, 'x'), "title without a NUL; "},
                 {626, std::string(68, 'x'), "genre without a NUL; "},
                 {694, std::string(4096, 'x'), "customInfo without a NUL; "},
                 {4796, "\xFF\xC9\x9A\x3B", ""},
                 {4796, std::string("\x00\xCA\x9A\x3B"sv), "1000000000 nanoseconds; "},
                 {4796, "\xFF\xFF\xFF\xFF", "-1 nanoseconds; "}};
    for (const auto& [offset, bytes, pProblem] : cases) {
        EXPECT_EQ(DecodeRecord(ImageWith(offset, bytes)).strProblem, pProblem);
    }
}

}  // namespace
}  // namespace receiver
