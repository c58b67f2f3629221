// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYGstErrors.h"

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <string>

namespace {

struct ErrorCase {
    const char* name;
    std::string domain;
    int code;
    int httpStatus;
    int expected;
};

class CGstErrorsTest : public testing::TestWithParam<ErrorCase> {};

TEST_P(CGstErrorsTest, AnErrorHasACode) {
    const ErrorCase& error = GetParam();
    EXPECT_EQ(CodeOfGstError({error.domain, error.code, "", error.httpStatus}), error.expected);
}

std::string DomainOf(GQuark domain) {
    return g_quark_to_string(domain);
}

const std::string kResource = DomainOf(GST_RESOURCE_ERROR);
const std::string kStream = DomainOf(GST_STREAM_ERROR);
const std::string kCore = DomainOf(GST_CORE_ERROR);

INSTANTIATE_TEST_SUITE_P(
    All, CGstErrorsTest,
    testing::Values(
        ErrorCase{"Http401", kResource, GST_RESOURCE_ERROR_READ, 401, TY_ERROR_ACCESS_DENIED},
        ErrorCase{"Http410", kResource, GST_RESOURCE_ERROR_READ, 410, TY_ERROR_NOT_FOUND},
        ErrorCase{"Http429", kResource, GST_RESOURCE_ERROR_READ, 429, TY_ERROR_REQUEST_REFUSED},
        ErrorCase{"Http503", kResource, GST_RESOURCE_ERROR_READ, 503, TY_ERROR_SERVER_FAILED},
        ErrorCase{"Http200", kResource, GST_RESOURCE_ERROR_SEEK, 200, TY_ERROR_READ_FAILED},
        ErrorCase{"NotFound", kResource, GST_RESOURCE_ERROR_NOT_FOUND, 0, TY_ERROR_NOT_FOUND},
        ErrorCase{"OpenRead", kResource, GST_RESOURCE_ERROR_OPEN_READ, 0, TY_ERROR_OPEN_FAILED},
        ErrorCase{"Denied", kResource, GST_RESOURCE_ERROR_NOT_AUTHORIZED, 0,
                  TY_ERROR_ACCESS_DENIED},
        ErrorCase{"Output", kResource, GST_RESOURCE_ERROR_OPEN_WRITE, 0, TY_ERROR_OUTPUT_FAILED},
        ErrorCase{"Type", kStream, GST_STREAM_ERROR_TYPE_NOT_FOUND, 0, TY_ERROR_FORMAT_UNKNOWN},
        ErrorCase{"Codec", kStream, GST_STREAM_ERROR_CODEC_NOT_FOUND, 0, TY_ERROR_CODEC_MISSING},
        ErrorCase{"Decode", kStream, GST_STREAM_ERROR_DECODE, 0, TY_ERROR_DECODE_FAILED},
        ErrorCase{"Demux", kStream, GST_STREAM_ERROR_DEMUX, 0, TY_ERROR_DEMUX_FAILED},
        ErrorCase{"Key", kStream, GST_STREAM_ERROR_DECRYPT_NOKEY, 0, TY_ERROR_DECRYPT_FAILED},
        ErrorCase{"Stream", kStream, GST_STREAM_ERROR_FAILED, 0, TY_ERROR_STREAM_FAILED},
        ErrorCase{"Plugin", kCore, GST_CORE_ERROR_MISSING_PLUGIN, 0, TY_ERROR_CODEC_MISSING},
        ErrorCase{"Core", kCore, GST_CORE_ERROR_FAILED, 0, TY_ERROR_FRAMEWORK_FAILED},
        ErrorCase{"Other", "an-application", 1, 0, TY_ERROR_PLAYER_FAILED}),
    [](const auto& each) { return std::string(each.param.name); });

TEST(CGstErrorTextTest, TheTextNamesDomainMessageAndHttpStatus) {
    EXPECT_EQ(TextOfGstError({"gst-resource-error-quark", 9, "Forbidden", 403}),
              "gst-resource-error-quark: Forbidden (HTTP 403)");
}

}  // namespace
