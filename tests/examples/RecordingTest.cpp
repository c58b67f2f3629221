// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Recording.h"
#include "Test.h"

#include <tallyra/ITYDataCollector.h>

namespace {

Recording Read(const std::string& text) {
    std::istringstream source("content url a.mp4\n" + text);
    return ReadRecording(source, "test.txt");
}

/// @return the error for a recording whose second line is `line`
std::string ErrorOf(const std::string& line) {
    try {
        Read(line + "\n0 START\n");
    } catch (const RecordingError& error) {
        return error.what();
    }
    return "none";
}

TEST(Recording, EventTakesUpToTwoNumbers) {
    const Recording recording = Read("0 START\n10 SEEK 5000\n20 RESUME -1 7\n");
    ASSERT_EQ(recording.steps.size(), 3U);
    EXPECT_EQ(recording.steps[0].code, TY_EVENT_START);
    EXPECT_EQ(recording.steps[1].milliseconds, 10);
    EXPECT_EQ(recording.steps[1].first, 5000);
    EXPECT_EQ(recording.steps[1].second, 0);
    EXPECT_EQ(recording.steps[2].first, -1);
    EXPECT_EQ(recording.steps[2].second, 7);
}

TEST(Recording, ErrorAndExecuteAreSteps) {
    const Recording recording = Read("5 ERROR 12\n6 EXECUTE 100 4500 bitrate of now\n");
    ASSERT_EQ(recording.steps.size(), 2U);
    EXPECT_EQ(recording.steps[0].kind, Step::Kind::ERROR_REPORT);
    EXPECT_EQ(recording.steps[0].code, 12);
    EXPECT_EQ(recording.steps[1].kind, Step::Kind::EXECUTE);
    EXPECT_EQ(recording.steps[1].first, 4500);
    EXPECT_EQ(recording.steps[1].text, "bitrate of now");
}

TEST(Recording, CommentsAndEmptyLinesAreIgnored) {
    EXPECT_TRUE(Read("# 0 START\n\n   # more\n\t\n").steps.empty());
}

TEST(Recording, ContentKeepsDefaultsOfMissingFields) {
    const Content content =
        Read("content title The Long Way\ncontent duration 90\ncontent drm 2\n").content;
    EXPECT_EQ(content.url, "a.mp4");
    EXPECT_EQ(content.title, "The Long Way");
    EXPECT_EQ(content.duration, 90);
    EXPECT_EQ(content.drmType, 2);
    EXPECT_EQ(content.contentType, -1);
}

TEST(Recording, MalformedLineIsReportedWithItsNumber) {
    constexpr const char* kCases[][2] = {
        {"soon START", "test.txt:2: \"soon\" is not a time in milliseconds"},
        {"0 BEGIN", "test.txt:2: \"BEGIN\" is not an event, ERROR or EXECUTE"},
        {"0", "test.txt:2: an event is missing"},
        {"0 SEEK far", "test.txt:2: \"far\" is not a number"},
        {"0 SEEK 1 2 3", "test.txt:2: unexpected \"3\" at the end of the line"},
        {"0 ERROR 256", "test.txt:2: \"256\" is out of range for an error code (0 to 255)"},
        {"0 EXECUTE 1", "test.txt:2: a number is missing"},
        {"content title", "test.txt:2: the title is missing"},
        {"content colour red",
         "test.txt:2: \"colour\" is not a field of the content (url, title, genre, channel, "
         "custom, duration, start, drm, type)"},
        {"0 SEEK 99999999999",
         "test.txt:2: \"99999999999\" is out of range for a number (-2147483648 to 2147483647)"},
        {"5 START", "test.txt:3: time goes backwards, from 5 to 0"},
    };
    for (const auto& [line, error] : kCases) {
        EXPECT_EQ(ErrorOf(line), error) << line;
    }
}

TEST(Recording, ContentMustHaveAUrl) {
    std::istringstream source("0 START\n");
    EXPECT_THROW(ReadRecording(source, "test.txt"), RecordingError);
}

TEST(Recording, EachShippedOneIsOnePlayback) {
    int recordings = 0;
    for (const auto& entry : std::filesystem::directory_iterator(RECORDINGS)) {
        SCOPED_TRACE(entry.path());
        ++recordings;
        std::ifstream file(entry.path());
        const Recording recording = ReadRecording(file, entry.path());
        for (const int event : {TY_EVENT_START, TY_EVENT_STOP}) {
            const auto isEvent = [&](const Step& step) {
                return step.kind == Step::Kind::EVENT && step.code == event;
            };
            EXPECT_EQ(std::ranges::count_if(recording.steps, isEvent), 1);
        }
    }
    EXPECT_EQ(recordings, 3);
}

}  // namespace
