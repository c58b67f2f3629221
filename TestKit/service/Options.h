// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTKIT_OPTIONS_H
#define TALLYRA_TESTKIT_OPTIONS_H

#include <optional>
#include <string>
#include <vector>

/// Which calls misbehaviours concern.
enum class Calls { BATCHES, POLICY, ALL };

/// How the service answers.
struct Misbehaviours {
    int slowMs = 0;
    bool refuse = false;
    bool malformed = false;
    bool silent = false;
    bool gone = false;
    Calls on = Calls::BATCHES;
    int after = 0;  ///< number of batches that it answers as usual before
    std::vector<std::string> refusedApplications{};
};

struct Options {
    Misbehaviours misbehaviours{};
    std::vector<std::string> command{};  ///< empty: serves until a signal
    std::string output = "-";
    int timeoutSeconds = 0;  ///< 0: none
    bool platform = false;
};

/// @return the options; an exit code if there is nothing to do
/// @param status  set when nothing is returned
std::optional<Options> ParseOptions(int argc, char** argv, int& status);

/// Exit codes, as those of timeout(1). Another one is the program's.
constexpr int kExitTimeout = 124;
constexpr int kExitFailed = 125;
constexpr int kExitNotStarted = 127;
constexpr int kExitSignal = 128;

#endif  // TALLYRA_TESTKIT_OPTIONS_H
