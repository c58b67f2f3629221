// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_GST_SCENARIOS_SCENARIOFIXTURE_H
#define TALLYRA_TESTS_GST_SCENARIOS_SCENARIOFIXTURE_H

#include "PrivateBus.h"
#include "Program.h"
#include "ServiceProcess.h"
#include "tallyra/TYConventions.h"

#include <nlohmann/json.hpp>

/// How far a record may be from what the viewer saw, in seconds.
constexpr double kTolerance = 0.15;

// As the media have them.
constexpr int kSmall = TYFrameSize(320, 180);
constexpr int kLarge = TYFrameSize(640, 360);

/// A record of the store.
struct Event {
    /// As the command prints it; "ERROR" for a player's error, "DETAILS" for the text beside it.
    std::string name;
    double at = 0;    ///< seconds since the epoch
    double time = 0;  ///< seconds since the first frame, or since START if there is none
    int param1 = 0;
    int param2 = 0;
    nlohmann::json row;  ///< all that the command prints
};

/// What happened from one instant to another, in seconds since the first frame.
struct Span {
    double begin = 0;
    double end = 0;
    double Length() const { return end - begin; }
};

/// Expects the same places and lengths, within the tolerance.
void ExpectSame(const std::vector<Span>& actual, const std::vector<Span>& expected);

/// One playback, as its records tell it.
class CPlayback {
  public:
    /// @param rows  as `tallyra records` prints them
    explicit CPlayback(const nlohmann::json& rows);

    std::vector<Event> All(const std::string& name) const {
        std::vector<Event> found;
        std::ranges::copy_if(m_Events, std::back_inserter(found),
                             [&](const Event& event) { return event.name == name; });
        return found;
    }
    /// @throws std::runtime_error  if there is not exactly one
    Event One(const std::string& name) const {
        const auto found = All(name);
        if (found.size() != 1) {
            throw std::runtime_error(std::to_string(found.size()) + " records " + name);
        }
        return found[0];
    }
    /// @return the names of the events that a viewer notices, separated by blanks
    std::string Story() const;
    /// @return what lies between each two events of these names
    std::vector<Span> Spans(const std::string& from, const std::string& to) const;
    /// @return the renditions whose pictures have another size than those before
    std::vector<Event> Sizes() const;

  private:
    std::vector<Event> m_Events;
};

/// Plays, and leaves the test if that failed or skipped it.
#define PLAY(...)                               \
    do {                                        \
        Play(__VA_ARGS__);                      \
        if (HasFatalFailure() || IsSkipped()) { \
            return;                             \
        }                                       \
    } while (false)

/// A bus, the service with a store, a server with media, and a player: all real, all of each test's
/// own.
class CScenarioTest : public testing::Test {
  protected:
    void TearDown() override;

    /// Plays to the end, and reads the truth and the store. Plays again if the machine was too busy
    /// to be in time, or if a gap came that the scenario does not plan. Skips the test if the
    /// machine stays too busy. Tests call PLAY.
    /// @param plan     of the server, as media_server.py takes it
    /// @param file     what is played
    /// @param options  of the player; "@" stands for the server's address
    void Play(const std::string& plan, const std::string& file,
              const std::vector<std::string>& options = {});
    /// Plays with a player that knows nothing of the observer: the tracer attaches one.
    void PlayUnmodified(const std::string& file);
    /// Starts an X server, and makes it the display of this test.
    void StartDisplay();

    /// @param count  how many playbacks there must be
    /// @return the playback at this place in their order
    /// @throws std::runtime_error  if there are more or fewer
    CPlayback Playback(std::size_t count = 1, std::size_t index = 0) const;
    /// @return what `tallyra kpi` says of all playbacks
    nlohmann::json KeyFigures() const { return Read({"kpi"}).at(0); }

    /// @return the player's lines of this kind, with "time" in seconds since the first frame, or
    ///         since the start if there is none
    std::vector<nlohmann::json> Said(const std::string& what) const;
    /// @return the time of the first of them
    double When(const std::string& what) const { return Said(what).at(0).at("time"); }
    /// @return the times in which no frame came
    std::vector<Span> Gaps() const;
    /// @return the times for which the player held the pipeline for a reason
    std::vector<Span> Pauses(const std::string& why) const;
    /// @return the sizes of the pictures in the order in which they were shown, as RENDITION has
    /// them
    std::vector<int> SizesSeen() const;

    /// Expects the story, the time from START to the first frame, and the reason of the end.
    void ExpectStory(const CPlayback& playback, const std::string& story, int reason) const;
    /// Expects one stall for each gap between frames, from its beginning to its end, for the cause.
    void ExpectStalls(const CPlayback& playback, int cause) const;
    /// Expects each new size of the picture when it was seen.
    void ExpectRenditions(const CPlayback& playback) const;

    std::string Address() const { return "http://127.0.0.1:" + m_Port; }

  private:
    /// Every gap that a scenario plans lasts longer, in seconds.
    static constexpr double kPlanned = 0.7;
    static constexpr int kAttempts = 3;

    bool WasLate() const { return !Said("late").empty(); }
    bool HasUnplannedGap() const;
    void Start(const std::string& plan);
    void Finish(const std::vector<std::string>& player);
    double Zero() const;
    /// @return what a command prints of the store
    nlohmann::json Read(std::vector<std::string> command) const;

    const CTemporaryFolder m_Folder;
    std::string m_File;
    int m_nAttempts = 0;
    CPrivateBus m_Bus;
    std::unique_ptr<CServiceProcess> m_pService;
    std::unique_ptr<CProgram> m_pServer;
    std::unique_ptr<CProgram> m_pDisplay;
    std::string m_Port;
    std::vector<nlohmann::json> m_Truth;
    nlohmann::json m_Records;
    std::string m_Printed;  ///< the records and the player's complaints, for a reader
};

#endif  // TALLYRA_TESTS_GST_SCENARIOS_SCENARIOFIXTURE_H
