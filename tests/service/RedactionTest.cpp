// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYRedaction.h"

#include "StoreFixture.h"
#include "TYRecordImage.h"

#include <random>

namespace {

struct Redaction {
    std::string_view url;
    std::string_view redacted;
};

constexpr Redaction kUrls[] = {
    {"", ""},
    {"film.mp4", "film.mp4"},
    {"https://host/path/film.mpd", "https://host/path/film.mpd"},
    {"https://host:8443/a@b/c", "https://host:8443/a@b/c"},
    // User information.
    {"https://user:pw@host/path", "https://*@host/path"},
    {"https://user@host", "https://*@host"},
    {"https://u:p@ss@host/", "https://*@host/"},
    {"https://@host/", "https://@host/"},
    {"rtsp://DOMAIN\\user:pw@host/", "rtsp://*@host/"},
    {"//user:pw@host/path", "//*@host/path"},
    {"https://proxy/get/http://user:pw@host/x", "https://proxy/get/http://*@host/x"},
    {R"(https:\/\/user:pw@host\/path)", R"(https:\/\/*@host\/path)"},
    {R"(https://host/a\//user:pw@other/)", R"(https://host/a\//*@other/)"},
    {"https://///user:pw@host/", "https://///*@host/"},
    // Query.
    {"https://host/?token=abc", "https://host/?token=*"},
    {"https://host/?a=1&b=2;c=3", "https://host/?a=*&b=*;c=*"},
    {"https://host/?a=b=c", "https://host/?a=*"},
    {"https://host/?a=", "https://host/?a="},
    {"https://host/?=secret", "https://host/?=*"},
    {"https://host/?secret", "https://host/?*"},
    {"https://host/?a=1&secret&&b=2&", "https://host/?a=*&*&&b=*&"},
    {"https://host/?", "https://host/?"},
    {"https://host/?next=https://u:p@h/?t=1", "https://host/?next=*"},
    {"?a=1", "?a=*"},
    {"film.mp4?key=%31%26#x", "film.mp4?key=*#x"},
    // Fragment.
    {"https://host/#access_token=abc&state=1", "https://host/#access_token=*&state=*"},
    {"https://host/#chapter-2", "https://host/#chapter-2"},
    {"https://host/#a?token=1", "https://host/#a?token=*"},
    {"https://u:p@host/x?a=1#t=30", "https://*@host/x?a=*#t=*"},
    {"#?a=1", "#?a=*"},
};

TEST(Redaction, RemovesUserInformationAndValuesFromUrls) {
    for (const Redaction& one : kUrls) {
        EXPECT_EQ(RedactedUrl(one.url), one.redacted) << one.url;
        EXPECT_EQ(RedactedUrl(one.redacted), one.redacted) << one.url;
        EXPECT_LE(one.redacted.size(), one.url.size());
    }
}

constexpr Redaction kTexts[] = {
    {"no URL: at all, user:pw@host, a?b=c", "no URL: at all, user:pw@host, a?b=c"},
    {"https://u:p@h/?t=1", "https://*@h/?t=*"},
    {"see https://h/?t=1 and rtsp://u:p@h2/x", "see https://h/?t=* and rtsp://*@h2/x"},
    {R"({"url":"https://h/?t=abc","other":"a=b"})", R"({"url":"https://h/?t=*","other":"a=b"})"},
    {R"({"url":"https:\/\/u:p@h\/?t=abc","n":1})", R"({"url":"https:\/\/*@h\/?t=*","n":1})"},
    {R"("https://h/?a=1\u0026t=abc")", R"("https://h/?a=*")"},
    {R"({\"url\":\"https://h/?t=abc\"})", R"({\"url\":\"https://h/?t=*\"})"},
    {"<a href='https://h/?t=abc'>x=y</a>", "<a href='https://h/?t=*'>x=y</a>"},
    {"it's https://h/Ann's.mp4?t=it's&u=a x", "it's https://h/Ann's.mp4?t=*&u=* x"},
    {"://u:p@h", "://u:p@h"},
};

TEST(Redaction, RemovesThemFromUrlsInTexts) {
    for (const Redaction& one : kTexts) {
        TYMediaData record = MakeRecord(TY_EVENT_START);
        CopyText(record.content.customInfo, std::string(one.url).c_str());
        CopyText(record.content.title, std::string(one.url).c_str());
        RedactTexts(record);
        EXPECT_EQ(TextsOf(record).customInfo, one.redacted);
        EXPECT_EQ(TextsOf(record).title, one.redacted);
    }
}

/// Fills every text of a record up to its last byte, without a NUL.
template <class Fill>
void FillTexts(TYMediaData& record, Fill fill) {
    fill(record.playbackID, sizeof(record.playbackID));
    fill(record.serviceVersion, sizeof(record.serviceVersion));
    fill(record.serviceID, sizeof(record.serviceID));
    fill(record.content.channelID, sizeof(record.content.channelID));
    fill(record.content.title, sizeof(record.content.title));
    fill(record.content.genre, sizeof(record.content.genre));
    fill(record.content.customInfo, sizeof(record.content.customInfo));
}

TEST(Redaction, LeavesNoSecretInAnyByteOfAnImage) {
    TYMediaData record = MakeRecord(TY_EVENT_START);
    FillTexts(record, [](char* pField, std::size_t size) {
        const std::string text = "a://#=" + std::string(size, 's');
        text.copy(pField, size);
    });
    // Behind the end of a text, and up to the end of the field.
    const std::string hidden = std::string("title\0b://h?", 12) + std::string(256, 's');
    hidden.copy(record.content.title, sizeof(record.content.title));
    RedactTexts(record);
    EXPECT_EQ(std::string(ImageOf(record)).find('s'), std::string::npos);
    EXPECT_EQ(std::string_view(record.content.title, 14), std::string_view("title\0b://h?*\0", 14));
}

TEST(Redaction, FillsShorterTextsWithZerosAndChangesNothingElse) {
    TYMediaData record = MakeRecord(TY_EVENT_SEEK, "p1", 7, 9);
    TYMediaData expected = record;
    CopyText(record.content.title, "https://host/?token=abcdefgh");
    CopyText(record.content.genre, "drama: family");
    CopyText(expected.content.title, "https://host/?token=*");
    CopyText(expected.content.genre, "drama: family");
    RedactTexts(record);
    EXPECT_EQ(ImageOf(record), ImageOf(expected));
}

TEST(Redaction, NeverMakesATextLonger) {
    std::mt19937 random(7);
    constexpr std::string_view kBytes("a:/@?#&;=\\\"u \0", 14);
    for (int i = 0; i < 20'000; ++i) {
        std::string text = "s://";
        for (int k = 0; k < 40; ++k) {
            text += kBytes[random() % kBytes.size()];
        }
        const std::string redacted = RedactedUrl(text);
        ASSERT_LE(redacted.size(), text.size()) << text;
        ASSERT_EQ(RedactedUrl(redacted), redacted) << text;
        TYMediaData record = MakeRecord(TY_EVENT_START);
        text.copy(record.content.title, sizeof(record.content.title));
        RedactTexts(record);
        const TYMediaData once = record;
        RedactTexts(record);
        ASSERT_EQ(ImageOf(record), ImageOf(once)) << text;
    }
}

}  // namespace
