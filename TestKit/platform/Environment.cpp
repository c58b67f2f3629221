// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Environment.h"

#include "PlatformHeaders.h"

#include <pthread.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kUsualRssi = -55;

struct NetworkName {
    std::string_view name;
    int type;
};
constexpr NetworkName kNetworks[] = {{"none", CONNECTION_TYPE_DISCONNECTED},
                                     {"wifi", CONNECTION_TYPE_WIFI},
                                     {"cellular", CONNECTION_TYPE_CELLULAR},
                                     {"ethernet", CONNECTION_TYPE_ETHERNET}};

template <class Number>
bool ReadNumber(std::string_view text, Number& number) {
    Number read = 0;
    const char* pEnd = text.data() + text.size();
    const auto [pStopped, error] = std::from_chars(text.data(), pEnd, read);
    if (error != std::errc() || pStopped != pEnd) {
        return false;
    }
    number = read;
    return true;
}

bool ReadKey(std::string_view text, Answers& answers) {
    if (text == "missing") {
        answers.keys.clear();
        return true;
    }
    return ReadNumber(text, answers.keys[TALLYRA_TESTPLATFORM_LOG_ON]);
}

bool ReadNetwork(std::string_view text, Answers& answers) {
    for (const auto& [name, type] : kNetworks) {
        if (name == text) {
            answers.network = type;
            answers.gateway = type != CONNECTION_TYPE_DISCONNECTED;
            return true;
        }
    }
    return false;
}

bool ReadRssi(std::string_view text, Answers& answers) {
    return ReadNumber(text, answers.rssi);
}

bool ReadVersion(std::string_view text, Answers& answers) {
    answers.otherVersion = text.empty() ? std::nullopt : std::optional(std::string(text));
    return true;
}

// FUNCTION=ERROR or FUNCTION=ERROR:N
bool ReadFailure(std::string_view text, Answers& answers) {
    const std::size_t equals = text.find('=');
    const std::size_t colon = text.find(':', equals);
    Failure failure;
    if (equals == std::string_view::npos ||
        !ReadNumber(text.substr(equals + 1, colon - equals - 1), failure.error) ||
        (colon != std::string_view::npos && !ReadNumber(text.substr(colon + 1), failure.nth))) {
        return false;
    }
    for (std::size_t i = 0; i < kFunctions.size(); ++i) {
        if (kFunctions.at(i) == text.substr(0, equals)) {
            answers.failures.at(i) = failure;
            return true;
        }
    }
    return false;
}

bool ReadFailures(std::string_view text, Answers& answers) {
    bool read = true;
    while (!text.empty()) {
        const std::size_t comma = text.find(',');
        read = ReadFailure(text.substr(0, comma), answers) && read;
        text.remove_prefix(comma == std::string_view::npos ? text.size() : comma + 1);
    }
    return read;
}

struct Variable {
    const char* pName;
    bool (*pRead)(std::string_view text, Answers& answers);
};
constexpr Variable kVariables[] = {{"TALLYRA_TESTPLATFORM_KEY", &ReadKey},
                                   {"TALLYRA_TESTPLATFORM_NETWORK", &ReadNetwork},
                                   {"TALLYRA_TESTPLATFORM_RSSI", &ReadRssi},
                                   {"TALLYRA_TESTPLATFORM_VERSION", &ReadVersion},
                                   {"TALLYRA_TESTPLATFORM_FAIL", &ReadFailures}};

constexpr const char* kLogName = "TALLYRA_TESTPLATFORM_LOG";

char LetterOf(int priority) {
    return priority == LOGSVC_DEBUG ? 'D' : priority == LOGSVC_INFO ? 'I' : 'E';
}

}  // namespace

Answers InitialAnswers() {
    Answers answers{.keys = {{TALLYRA_TESTPLATFORM_LOG_ON, 1}},
                    .network = CONNECTION_TYPE_ETHERNET,
                    .gateway = true,
                    .rssi = kUsualRssi,
                    .otherVersion = "1.0.0"};
    for (const auto& [pName, pRead] : kVariables) {
        const char* pText = std::getenv(pName);
        if (pText != nullptr && !pRead(pText, answers)) {
            std::fprintf(stderr, "libtallyra-testplatform: %s=%s makes no sense\n", pName, pText);
        }
    }
    return answers;
}

std::FILE* OpenLogFile() {
    const char* pPath = std::getenv(kLogName);
    if (pPath == nullptr || *pPath == '\0') {
        return nullptr;
    }
    std::FILE* pFile = std::string_view(pPath) == "-" ? stderr : std::fopen(pPath, "ae");
    if (pFile == nullptr) {
        std::fprintf(stderr, "libtallyra-testplatform: cannot open %s=%s: %s\n", kLogName, pPath,
                     std::strerror(errno));
    }
    return pFile;
}

void WriteLine(std::FILE* pFile, const LogLine& line) {
    int state = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    std::fprintf(pFile, "%c/%s: %s\n", LetterOf(line.priority), line.tag.c_str(),
                 line.text.c_str());
    std::fflush(pFile);
    pthread_setcancelstate(state, nullptr);
}
