// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ReplayFixture.h"
#include "TableTest.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;

namespace {

/// @return the complaints, without the name of the file
std::vector<std::string> ComplaintsIn(const Result& result, const std::string& file) {
    std::vector<std::string> lines = LinesOf(result.out);
    lines.pop_back();
    for (std::string& line : lines) {
        EXPECT_TRUE(line.starts_with(file + ":")) << line;
        line.erase(0, file.size() + 1);
    }
    return lines;
}

TEST_F(CReplayTest, RecordedSessionsKeepTheContract) {
    Play(Read("film"));
    Play(Read("failed-start"));
    const Result result = Check(Export());
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.out, "2 playbacks, 40 records, 0 complaints\n");
}

// Its player makes two mistakes, which the head of the recording names.
TEST_F(CReplayTest, RecordedSessionWithTwoMistakesHasTwoComplaints) {
    Play(Read("live-stalls"));
    const std::string file = Export();
    EXPECT_THAT(
        ComplaintsIn(Check(file), file),
        ElementsAre("21: BUFFERING_END without BUFFERING_START before it: send one BUFFERING_START "
                    "and one BUFFERING_END for each wait",
                    "23,24: BUFFERING_START twice without BUFFERING_END between: send "
                    "BUFFERING_END when the picture goes on, also if buffering begins again"));
}

TEST_F(CReplayTest, EachPlaybackOfAFileIsCheckedByItself) {
    Recording lost = Read("failed-start");
    lost.steps.pop_back();
    Play(lost);
    Play(Read("failed-start"));
    Play(lost);
    const std::string file = Export();
    const Result result = Check(file);
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(ComplaintsIn(result, file), ElementsAre(HasSubstr("7: the playback ends here"),
                                                        HasSubstr("23: the playback ends here")));
    EXPECT_THAT(result.out, HasSubstr("3 playbacks, 23 records, 2 complaints\n"));
}

/// A mistake of a player, and the complaints about it.
struct Mistake {
    const char* recording;
    void (*make)(Recording&);
    std::vector<std::string> complaints;
};

Step& Nth(Recording& recording, int event, int number) {
    for (Step& step : recording.steps) {
        if (step.kind == Step::Kind::EVENT && step.code == event && number-- == 0) {
            return step;
        }
    }
    throw std::out_of_range("no such event");
}

/// Leaves out one event, from 0, or all if the number is negative.
void Omit(Recording& recording, int event, int number = 0) {
    std::erase_if(recording.steps, [&](const Step& step) {
        return step.kind == Step::Kind::EVENT && step.code == event && number-- == 0;
    });
}

void Insert(Recording& recording, const Step& step) {
    const auto later =
        std::ranges::upper_bound(recording.steps, step.milliseconds, {}, &Step::milliseconds);
    recording.steps.insert(later, step);
}

void OmitPositions(Recording& recording, long long from, long long to) {
    std::erase_if(recording.steps, [&](const Step& step) {
        return step.code == TY_EVENT_PLAYBACK_TIME && step.milliseconds >= from &&
               step.milliseconds < to;
    });
}

void PassSeconds(Recording& recording) {
    for (Step& step : recording.steps) {
        step.first /= step.code == TY_EVENT_PLAYBACK_TIME ? 1000 : 1;
    }
}

const Named<Mistake> kMistakes[] = {
    {"NoStop",
     {"film",
      [](Recording& film) { Omit(film, TY_EVENT_STOP); },
      {"29: the playback ends here without STOP: send it once, also after a fatal error and when "
       "the application closes"}}},
    {"ErrorBeforeStart",
     {"failed-start",
      [](Recording& film) {
          film.steps.insert(film.steps.begin(), {0, Step::Kind::ERROR_REPORT, 212, 0, 0, ""});
      },
      {"1: 212 belongs to no playback: send START before the content is loaded, and errors before "
       "STOP"}}},
    {"StartTwice",
     {"film",
      [](Recording& film) {
          Insert(film, {100000, Step::Kind::EVENT, TY_EVENT_START, 0, 0, ""});
      },
      {"8: START during a playback: send STOP for the old playback before START for the next "
       "one"}}},
    {"NoRenderStart",
     {"film",
      [](Recording& film) { Omit(film, TY_EVENT_RENDER_START); },
      {"7: RESUME without RENDER_START before it: send RENDER_START when the first frame is on the "
       "screen; positions before it are ignored"}}},
    {"RenderStartTwice",
     {"film",
      [](Recording& film) {
          Insert(film, {1403, Step::Kind::EVENT, TY_EVENT_RENDER_START, 0, 0, ""});
      },
      {"5,7: a second RENDER_START: send it once, for the first frame of a playback"}}},
    {"NoBufferingStart",
     {"film",
      [](Recording& film) { Omit(film, TY_EVENT_BUFFERING_START); },
      {"2: BUFFERING_END without BUFFERING_START before it: send one BUFFERING_START and one "
       "BUFFERING_END for each wait"}}},
    {"NoBufferingEnd",
     {"film",
      [](Recording& film) { Omit(film, TY_EVENT_BUFFERING_END, 1); },
      {"15,19: BUFFERING_START without BUFFERING_END, but the position advances: send "
       "BUFFERING_END when the picture goes on"}}},
    {"PauseTwice",
     {"film",
      [](Recording& film) { Nth(film, TY_EVENT_RESUME, 0).code = TY_EVENT_PAUSE; },
      {"9,11: PAUSE twice without RESUME between: send RESUME when the picture goes on; positions "
       "are ignored until then"}}},
    {"NoPause",
     {"film",
      [](Recording& film) { Omit(film, TY_EVENT_PAUSE); },
      {"9: RESUME without PAUSE before it: send PAUSE when the viewer pauses, and nothing at the "
       "start",
       "8,10: the position advances by 181.0 s in 225.5 s of playing: send PLAYBACK_TIME about "
       "once a second while the picture moves, and PAUSE or BUFFERING_START when it stops"}}},
    {"NoSeekComplete",
     {"film",
      [](Recording& film) { Omit(film, TY_EVENT_SEEK_COMPLETE); },
      {"14,19: SEEK without SEEK_COMPLETE, but the position advances: send SEEK_COMPLETE when the "
       "player has reached the new position"}}},
    {"SeekCompleteAlone",
     {"film",
      [](Recording& film) { Omit(film, TY_EVENT_SEEK, 1); },
      {"26: SEEK_COMPLETE without SEEK before it: send SEEK when the viewer seeks",
       "23,27: the position advances by -25.0 s in 0.1 s of playing: send SEEK and SEEK_COMPLETE "
       "when the viewer jumps"}}},
    {"JumpWithoutSeek",
     {"film",
      [](Recording& film) {
          Omit(film, TY_EVENT_SEEK);
          Omit(film, TY_EVENT_SEEK_COMPLETE);
      },
      {"14,17: the position advances by 1069.0 s in 0.1 s of playing: send SEEK and SEEK_COMPLETE "
       "when the viewer jumps"}}},
    {"FatalStopWithoutError",
     {"failed-start",
      [](Recording& film) {
          std::erase_if(film.steps,
                        [](const Step& step) { return step.kind == Step::Kind::ERROR_REPORT; });
      },
      {"5: STOP because of a fatal error, but no error before it: report the error with "
       "SendMediaError, then STOP"}}},
    {"PositionsInSeconds",
     {"film",
      &PassSeconds,
      {"7,8: the position advances by 0.2 s in 250.8 s of playing: pass positions in "
       "milliseconds"}}},
    {"PositionsEnd",
     {"film",
      [](Recording& film) { OmitPositions(film, 710000, 910000); },
      {"28,29: the position advances by 5.0 s in 201.7 s of playing: send PLAYBACK_TIME about once "
       "a second while the picture moves, and PAUSE or BUFFERING_START when it stops"}}},
    {"NoPositions",
     {"film",
      [](Recording& film) { OmitPositions(film, 0, 910000); },
      {"5,7: no position in 250.9 s after RENDER_START: send PLAYBACK_TIME about once a second "
       "while the picture moves",
       "9,10: no position in 189.8 s after RESUME: send PLAYBACK_TIME about once a second while "
       "the picture moves",
       "14,16: no position in 221.6 s after SEEK_COMPLETE: send PLAYBACK_TIME about once a second "
       "while the picture moves",
       "20,21: no position in 201.8 s after SEEK_COMPLETE: send PLAYBACK_TIME about once a second "
       "while the picture moves"}}},
    {"DurationInSeconds",
     {"film",
      [](Recording& film) { film.content.duration /= 1000; },
      {"8: the position 180.0 s is behind the end of the content, 6.9 s: pass the duration in "
       "milliseconds, or 0"}}},
    {"CauseStartAfterTheFirstFrame",
     {"film",
      [](Recording& film) { Nth(film, TY_EVENT_BUFFERING_END, 1).second = TY_STALL_START; },
      {"16: BUFFERING_END with the cause TY_STALL_START after the first frame: tell what the "
       "picture waited for, as TY_STALL_CONNECTION"}}},
    {"UnknownCause",
     {"film",
      [](Recording& film) { Nth(film, TY_EVENT_BUFFERING_END, 1).second = 7; },
      {"16: BUFFERING_END with the cause 7: pass a TY_STALL_CAUSE, 0 to 4, as second parameter"}}},
    {"UnknownReason",
     {"film",
      [](Recording& film) { Nth(film, TY_EVENT_STOP, 0).second = 9; },
      {"30: STOP with the reason 9: pass a TY_STOP_REASON, 0 to 5, as second parameter"}}},
    {"ErrorOfTheLibrary",
     {"film",
      [](Recording& film) {
          Insert(film, {100000, Step::Kind::ERROR_REPORT, 205, 0, 0, ""});
      },
      {"8: error 205 is the library's own: use codes from 206 to 255 for errors"}}},
    {"PlayingTimeFromThePlayer",
     {"film",
      [](Recording& film) {
          Insert(film, {100000, Step::Kind::EVENT, TY_EVENT_PLAYING_TIME, 0, 98000, ""});
      },
      {"8: PLAYING_TIME is made by the library only: do not send it"}}},
    {"RenditionInBits",
     {"film",
      [](Recording& film) {
          Insert(film, {1500, Step::Kind::EVENT, TY_EVENT_RENDITION, 5800000, 0, ""});
      },
      {"8: RENDITION with 5800000 kbit/s: pass the bit rate in kbit/s, or 0"}}},
    {"FramesSinceTheLastReport",
     {"film",
      [](Recording& film) {
          Insert(film, {60000, Step::Kind::EVENT, TY_EVENT_DROPPED_FRAMES, 2, 1500, ""});
          Insert(film, {120000, Step::Kind::EVENT, TY_EVENT_DROPPED_FRAMES, 0, 1498, ""});
      },
      {"9: DROPPED_FRAMES with lower numbers than before: count frames since START"}}},
};

class CMistakeTest : public CTableTest<CReplayTest, Mistake> {};

INSTANTIATE_TEST_SUITE_P(Each, CMistakeTest, testing::ValuesIn(kMistakes), kByName);

TEST_P(CMistakeTest, HasExactlyItsComplaint) {
    Recording recording = Read(Case().recording);
    Case().make(recording);
    Play(recording);
    const std::string file = Export();
    const Result result = Check(file);
    EXPECT_EQ(result.code, 1) << result.err;
    EXPECT_THAT(ComplaintsIn(result, file), ElementsAreArray(Case().complaints));
}

}  // namespace
