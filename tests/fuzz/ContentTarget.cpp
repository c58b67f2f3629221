// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Target "content": any texts of a player and of the platform. They reach the wire truncated,
// terminated and valid as in the reference model, in messages that the bus accepts.

#include "Bytes.h"
#include "Rig.h"
#include "Target.h"

#include <algorithm>
#include <array>
#include <string>

namespace {

constexpr int kMostContents = 8;
// Some of these fill a batch.
constexpr std::size_t kLongestUrl = std::size_t{1} << 18;

std::string Text(CBytes& bytes) {
    return std::string(bytes.Some());
}

// Repeats a piece of text, since few inputs are long.
std::string Url(CBytes& bytes) {
    constexpr std::array<std::size_t, 8> kTimes{1, 1, 1, 1, 1, 3, 100, 2'000};
    const std::size_t times = kTimes.at(bytes.Byte() % kTimes.size());
    const std::string piece = Text(bytes);
    std::string url;
    for (std::size_t i = 0; i < times && url.size() + piece.size() <= kLongestUrl; ++i) {
        url += piece;
    }
    return url;
}

void FillTexts(CBytes& bytes, model::Content& content) {
    content.channelID = Text(bytes);
    content.title = Text(bytes);
    content.genre = Text(bytes);
    content.customInfo = Text(bytes);
}

model::Content MakeContent(CBytes& bytes) {
    model::Content content;
    content.url = Url(bytes);
    content.startTime = bytes.Int();
    content.duration = bytes.Int();
    content.drmType = bytes.Int();
    content.contentType = bytes.Int();
    FillTexts(bytes, content);
    return content;
}

void PlayContent(CBytes& bytes, CRig& rig) {
    model::Content content = MakeContent(bytes);
    rig.SetContent(content);
    rig.SendError(7);
    rig.SendEvent(TY_EVENT_START, 0, 0);
    const int code = bytes.Byte();
    rig.Execute(code, 5, Text(bytes));
    rig.SetServiceVersion(Text(bytes));
    // Content with a title keeps the whole URL, so the second content has a title iff the first
    // has.
    const std::string title = content.title;
    FillTexts(bytes, content);
    content.title = title.empty() ? title : content.title + "t";
    rig.SetContent(content);
    const int more = bytes.Byte() % 64;
    for (int i = 0; i < more; ++i) {
        rig.SendEvent(99, i, 0);
    }
    rig.SendEvent(TY_EVENT_STOP, 0, 0);
}

void CheckPolicyNames(CRig& rig, const std::string& appId) {
    const auto calls = rig.Bus().Calls("GetPolicyInfo");
    const CFakeBus::Arguments asked{0, 1, "GetPolicyInfo",
                                    1, 1, model::Valid(model::Cut(appId, 50))};
    Require(calls.size() == 1 && calls.front().arguments == asked,
            "the policy request names the application");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t size) {
    CBytes bytes(pData, size);
    model::World world;
    world.realNs = 1'700'000'000'000'000'000;
    world.serviceIsThere = true;
    world.connectionType = 3;
    world.version = Text(bytes);
    const std::string appId = Text(bytes);
    CRig rig(world, appId, 1);
    rig.Pass(std::chrono::seconds(1));
    for (int i = 0; i < kMostContents && !bytes.AtEnd(); ++i) {
        PlayContent(bytes, rig);
    }
    // By design a deleted collector leaks the URL of its content.
    rig.SetContent({});
    rig.Finish();
    CheckPolicyNames(rig, appId);
    return 0;
}
