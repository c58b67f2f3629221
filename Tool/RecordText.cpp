// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "RecordText.h"

#include "TYEventCodes.h"
#include "TimeText.h"
#include "tallyra/TYConventions.h"

namespace {

std::string Joined(const std::string& first, const std::string& second) {
    return first.empty() || second.empty() ? first + second : first + ", " + second;
}

std::string DescribeNumbers(std::int64_t param1, std::int64_t param2) {
    if (param1 == 0 && param2 == 0) {
        return "";
    }
    return std::to_string(param1) + ", " + std::to_string(param2);
}

std::string DescribeCause(std::int64_t cause) {
    switch (cause) {
        case TY_STALL_NOT_TOLD:
            return "";
        case TY_STALL_START:
            return "because of the start";
        case TY_STALL_SEEK:
            return "because of a seek";
        case TY_STALL_CONNECTION:
            return "because of the connection";
        case TY_STALL_RENDITION_SWITCH:
            return "because of a rendition switch";
        default:
            return "cause " + std::to_string(cause);
    }
}

// The size is TYFrameSize of the picture.
std::string DescribeRendition(std::int64_t rate, std::int64_t size) {
    constexpr int kBitsOfHeight = 16;
    constexpr std::uint32_t kHeightMask = 0xffff;
    const auto bits = static_cast<std::uint32_t>(size);
    return Joined(std::to_string(rate) + " kbit/s",
                  bits == 0 ? ""
                            : std::to_string(bits >> kBitsOfHeight) + "x" +
                                  std::to_string(bits & kHeightMask));
}

std::string DescribePosition(std::int64_t position) {
    return position == -1 ? "before any position" : "at " + FormatLength(position);
}

}  // namespace

std::string DescribeReason(std::int64_t reason) {
    switch (reason) {
        case TY_STOP_NOT_TOLD:
            return "";
        case TY_STOP_END_OF_CONTENT:
            return "end of content";
        case TY_STOP_USER:
            return "by user";
        case TY_STOP_FATAL_ERROR:
            return "fatal error";
        case TY_STOP_REPLACED:
            return "replaced";
        case TY_STOP_APPLICATION_CLOSED:
            return "application closed";
        default:
            return "reason " + std::to_string(reason);
    }
}

std::string DescribeRecord(int event, std::int64_t param1, std::int64_t param2) {
    switch (event) {
        case TY_EVENT_START:
            return "from " + std::to_string(param1);
        case TY_EVENT_STOP:
            return Joined(DescribePosition(param1), DescribeReason(param2));
        case TY_EVENT_PAUSE:
        case TY_EVENT_PLAYBACK_TIME:
            return DescribePosition(param1);
        case TY_EVENT_BUFFERING_START:
            return Joined(DescribePosition(param1),
                          param2 == 0 ? "" : "signal " + std::to_string(param2));
        case TY_EVENT_BUFFERING_END:
            return Joined(param1 == 0 ? "" : std::to_string(param1), DescribeCause(param2));
        case TY_EVENT_SEEK:
            return DescribePosition(param1) + " to " + FormatLength(param2);
        case TY_EVENT_PLAYING_TIME:
            return DescribePosition(param1) + ", played " + FormatLength(param2);
        case TY_EVENT_START_UP_TIME:
            return "took " + FormatLength(param1);
        case TY_EVENT_BUFFERING_TIME:
            return Joined("took " + FormatLength(param1), DescribeCause(param2));
        case TY_ERROR_PLAYBACK_TIME_JUMP:
            return DescribePosition(param1) + ", was at " + FormatLength(param2);
        case TY_EVENT_RENDITION:
            return DescribeRendition(param1, param2);
        case TY_EVENT_DROPPED_FRAMES:
            return std::to_string(param1) + " dropped, " + std::to_string(param2) + " shown";
        default:
            return DescribeNumbers(param1, param2);
    }
}
