// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "FleetOptions.h"

#include "Encodings.h"
#include "TYLog.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <sysexits.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <limits>
#include <stdexcept>
#include <thread>

#define TY_LOG_TAG "TALLYRA_FLEET"

namespace {

volatile std::sig_atomic_t g_bStopRequested = 0;

}  // namespace

void AddNatsOptions(CLI::App& app, TYNatsOptions& options) {
    app.add_option("--server", options.servers,
                   "Connect to one of these servers, such as tls://nats.example:4222")
        ->envname("TALLYRA_SERVER")
        ->delimiter(',')
        ->required();
    app.add_option("--credentials", options.credentials, "Authenticate with this credentials file")
        ->envname("TALLYRA_CREDENTIALS")
        ->check(CLI::ExistingFile);
    app.add_option("--ca", options.ca, "Trust servers with a certificate of this authority")
        ->envname("TALLYRA_CA")
        ->check(CLI::ExistingFile);
    app.add_option("--certificate", options.certificate, "Present this certificate")
        ->envname("TALLYRA_CERTIFICATE")
        ->check(CLI::ExistingFile);
    app.add_option("--key", options.key, "Use this key of the certificate")
        ->envname("TALLYRA_KEY")
        ->check(CLI::ExistingFile);
}

CLI::Validator NotEmpty() {
    return {[](const std::string& text) {
                return text.empty() ? std::string("the name is empty") : std::string();
            },
            ""};
}

CLI::Validator From(std::int64_t least) {
    return CLI::Range(least, std::numeric_limits<std::int64_t>::max())
        .description("AT LEAST " + std::to_string(least));
}

std::optional<int> ParseArguments(CLI::App& app, int argc, char** argv) {
    try {
        app.parse(argc, argv);
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == EX_OK ? EX_OK : EX_USAGE;
    }
}

std::string NameInCredentials(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line) && line.find("BEGIN NATS USER JWT") == line.npos) {
    }
    std::getline(file, line);
    const std::size_t begin = line.find('.') + 1;
    const auto payload =
        DecodeBase64Url(std::string_view(line).substr(begin, line.find('.', begin) - begin));
    const auto claims = payload ? nlohmann::json::parse(*payload, nullptr, false) : nullptr;
    if (!claims.is_object() || !claims.contains("name") || !claims["name"].is_string()) {
        throw std::runtime_error(path + " does not contain credentials of a device");
    }
    return claims["name"];
}

void CTYLogOnce::Log(const std::string& line) {
    if (line != m_strLast) {
        TY_LOG_ERROR("%s", line.c_str());
    }
    m_strLast = line;
}

void Pause(std::chrono::milliseconds time) {
    constexpr std::chrono::milliseconds kLook{100};
    const auto until = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < until && !IsStopRequested()) {
        std::this_thread::sleep_for(std::min(kLook, time));
    }
}

void CatchStopSignals() {
    struct sigaction action {};
    action.sa_handler = [](int) { g_bStopRequested = 1; };
    for (const int signal : {SIGTERM, SIGINT}) {
        sigaction(signal, &action, nullptr);
    }
}

bool IsStopRequested() {
    return g_bStopRequested != 0;
}
