// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Recording.h"

#include <tallyra/ITYDataCollector.h>

#include <charconv>
#include <climits>
#include <map>
#include <optional>
#include <sstream>

namespace {

const std::map<std::string, int> kEvents = {
    {"START", TY_EVENT_START},
    {"STOP", TY_EVENT_STOP},
    {"PAUSE", TY_EVENT_PAUSE},
    {"BUFFERING_START", TY_EVENT_BUFFERING_START},
    {"BUFFERING_END", TY_EVENT_BUFFERING_END},
    {"RENDER_START", TY_EVENT_RENDER_START},
    {"RESUME", TY_EVENT_RESUME},
    {"PLAYBACK_TIME", TY_EVENT_PLAYBACK_TIME},
    {"SEEK", TY_EVENT_SEEK},
    {"SEEK_COMPLETE", TY_EVENT_SEEK_COMPLETE},
};

/// Reads one line word by word. Errors begin with the place of the line.
class CLineReader {
  public:
    CLineReader(const std::string& line, const std::string& place)
        : m_Words(line), m_Place(place + ": ") {}

    [[noreturn]] void Fail(const std::string& what) const { throw RecordingError(m_Place + what); }

    bool AtEnd() { return (m_Words >> std::ws).eof(); }

    std::string Word(const char* expected) {
        std::string word;
        if (!(m_Words >> word)) {
            Fail(std::string(expected) + " is missing");
        }
        return word;
    }

    long long Number(const char* expected, long long least, long long most) {
        const std::string word = Word(expected);
        long long value = 0;
        const char* pEnd = word.data() + word.size();
        const auto [pStop, error] = std::from_chars(word.data(), pEnd, value);
        if (error != std::errc() || pStop != pEnd) {
            Fail("\"" + word + "\" is not " + expected);
        }
        if (value < least || value > most) {
            Fail("\"" + word + "\" is out of range for " + expected + " (" + std::to_string(least) +
                 " to " + std::to_string(most) + ")");
        }
        return value;
    }

    int Int(const char* expected) { return static_cast<int>(Number(expected, INT_MIN, INT_MAX)); }

    std::string Rest() {
        std::string rest;
        std::getline(m_Words >> std::ws, rest);
        return rest;
    }

    void ExpectEnd() {
        if (!AtEnd()) {
            Fail("unexpected \"" + Rest() + "\" at the end of the line");
        }
    }

  private:
    std::istringstream m_Words;
    const std::string m_Place;
};

void ReadContent(CLineReader& line, Content& content) {
    const std::map<std::string, std::string Content::*> texts = {{"url", &Content::url},
                                                                 {"title", &Content::title},
                                                                 {"genre", &Content::genre},
                                                                 {"channel", &Content::channel},
                                                                 {"custom", &Content::customInfo}};
    const std::map<std::string, int Content::*> numbers = {{"duration", &Content::duration},
                                                           {"start", &Content::startTime},
                                                           {"drm", &Content::drmType},
                                                           {"type", &Content::contentType}};
    const std::string field = line.Word("a field of the content");
    if (const auto text = texts.find(field); text != texts.end()) {
        content.*(text->second) = line.Rest();
        if ((content.*(text->second)).empty()) {
            line.Fail("the " + field + " is missing");
        }
    } else if (const auto number = numbers.find(field); number != numbers.end()) {
        content.*(number->second) = line.Int("a number");
        line.ExpectEnd();
    } else {
        line.Fail("\"" + field +
                  "\" is not a field of the content (url, title, genre, channel, custom, duration, "
                  "start, drm, type)");
    }
}

void ReadParameters(CLineReader& line, Step& step) {
    if (!line.AtEnd()) {
        step.first = line.Int("a number");
    }
    if (!line.AtEnd()) {
        step.second = line.Int("a number");
    }
    line.ExpectEnd();
}

Step ReadStep(CLineReader& line) {
    Step step;
    step.milliseconds = line.Number("a time in milliseconds", 0, INT_MAX);
    const std::string what = line.Word("an event");
    if (what == "ERROR") {
        step.kind = Step::Kind::ERROR_REPORT;
        step.code = static_cast<int>(line.Number("an error code", 0, 255));
        line.ExpectEnd();
    } else if (what == "EXECUTE") {
        step.kind = Step::Kind::EXECUTE;
        step.code = static_cast<int>(line.Number("a code", 0, 255));
        step.first = line.Int("a number");
        step.text = line.Rest();
    } else if (const auto event = kEvents.find(what); event != kEvents.end()) {
        step.code = event->second;
        ReadParameters(line, step);
    } else {
        line.Fail("\"" + what + "\" is not an event, ERROR or EXECUTE");
    }
    return step;
}

void ReadLine(CLineReader& line, bool isContent, Recording& recording) {
    if (isContent) {
        line.Word("content");
        ReadContent(line, recording.content);
        return;
    }
    const Step step = ReadStep(line);
    if (!recording.steps.empty() && step.milliseconds < recording.steps.back().milliseconds) {
        line.Fail("time goes backwards, from " +
                  std::to_string(recording.steps.back().milliseconds) + " to " +
                  std::to_string(step.milliseconds));
    }
    recording.steps.push_back(step);
}

}  // namespace

Recording ReadRecording(std::istream& source, const std::string& name) {
    Recording recording;
    int number = 0;
    for (std::string text; std::getline(source, text);) {
        CLineReader line(text, name + ":" + std::to_string(++number));
        const std::size_t first = text.find_first_not_of(" \t\r");
        if (first == std::string::npos || text[first] == '#') {
            continue;
        }
        ReadLine(line, text.compare(first, 8, "content ") == 0, recording);
    }
    if (recording.content.url.empty()) {
        throw RecordingError(name + ":" + std::to_string(number) +
                             ": the recording has no \"content url\" line");
    }
    return recording;
}
