// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYGstErrors.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace {

struct Row {
    std::string_view domain;
    int code;
    TY_ERROR_TYPE error;
};

constexpr std::string_view kCore = "gst-core-error-quark";
constexpr std::string_view kLibrary = "gst-library-error-quark";
constexpr std::string_view kResource = kGstResourceErrors;
constexpr std::string_view kStream = "gst-stream-error-quark";

// The numbers are those of GstCoreError, GstResourceError and GstStreamError.
constexpr std::array kRows = {
    Row{kCore, 12, TY_ERROR_CODEC_MISSING},      // MISSING_PLUGIN
    Row{kResource, 3, TY_ERROR_NOT_FOUND},       // NOT_FOUND
    Row{kResource, 4, TY_ERROR_READ_FAILED},     // BUSY
    Row{kResource, 5, TY_ERROR_OPEN_FAILED},     // OPEN_READ
    Row{kResource, 6, TY_ERROR_OUTPUT_FAILED},   // OPEN_WRITE
    Row{kResource, 7, TY_ERROR_OPEN_FAILED},     // OPEN_READ_WRITE
    Row{kResource, 8, TY_ERROR_READ_FAILED},     // CLOSE
    Row{kResource, 9, TY_ERROR_READ_FAILED},     // READ
    Row{kResource, 10, TY_ERROR_OUTPUT_FAILED},  // WRITE
    Row{kResource, 11, TY_ERROR_READ_FAILED},    // SEEK
    Row{kResource, 12, TY_ERROR_READ_FAILED},    // SYNC
    Row{kResource, 13, TY_ERROR_OUTPUT_FAILED},  // SETTINGS
    Row{kResource, 14, TY_ERROR_OUTPUT_FAILED},  // NO_SPACE_LEFT
    Row{kResource, 15, TY_ERROR_ACCESS_DENIED},  // NOT_AUTHORIZED
    Row{kStream, 4, TY_ERROR_FORMAT_UNKNOWN},    // TYPE_NOT_FOUND
    Row{kStream, 5, TY_ERROR_FORMAT_UNKNOWN},    // WRONG_TYPE
    Row{kStream, 6, TY_ERROR_CODEC_MISSING},     // CODEC_NOT_FOUND
    Row{kStream, 7, TY_ERROR_DECODE_FAILED},     // DECODE
    Row{kStream, 8, TY_ERROR_DECODE_FAILED},     // ENCODE
    Row{kStream, 9, TY_ERROR_DEMUX_FAILED},      // DEMUX
    Row{kStream, 10, TY_ERROR_DEMUX_FAILED},     // MUX
    Row{kStream, 11, TY_ERROR_FORMAT_UNKNOWN},   // FORMAT
    Row{kStream, 12, TY_ERROR_DECRYPT_FAILED},   // DECRYPT
    Row{kStream, 13, TY_ERROR_DECRYPT_FAILED},   // DECRYPT_NOKEY
};

TY_ERROR_TYPE CodeOfHttpStatus(int status) {
    switch (status) {
        case 401:
        case 403:
        case 407:
        case 451:
            return TY_ERROR_ACCESS_DENIED;
        case 404:
        case 410:
            return TY_ERROR_NOT_FOUND;
        default:
            return status < 500 ? TY_ERROR_REQUEST_REFUSED : TY_ERROR_SERVER_FAILED;
    }
}

}  // namespace

TY_ERROR_TYPE CodeOfGstError(const TYGstError& error) {
    if (error.httpStatus >= 400 && error.httpStatus < 600) {
        return CodeOfHttpStatus(error.httpStatus);
    }
    const auto row = std::ranges::find_if(kRows, [&](const Row& each) {
        return each.domain == error.domain && each.code == error.code;
    });
    if (row != kRows.end()) {
        return row->error;
    }
    if (error.domain == kResource) {
        return TY_ERROR_OPEN_FAILED;
    }
    if (error.domain == kStream) {
        return TY_ERROR_STREAM_FAILED;
    }
    const bool isFramework = error.domain == kCore || error.domain == kLibrary;
    return isFramework ? TY_ERROR_FRAMEWORK_FAILED : TY_ERROR_PLAYER_FAILED;
}

std::string TextOfGstError(const TYGstError& error) {
    std::string text = error.domain + ": " + error.message;
    if (error.httpStatus != 0) {
        text += " (HTTP " + std::to_string(error.httpStatus) + ")";
    }
    return text;
}
