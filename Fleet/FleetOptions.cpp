// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "FleetOptions.h"

#include "Encodings.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <sysexits.h>

#include <csignal>
#include <fstream>
#include <limits>
#include <stdexcept>

namespace {

volatile std::sig_atomic_t g_bStopRequested = 0;

std::string PayloadOf(const std::string& token) {
    const std::size_t begin = token.find('.') + 1;
    const auto payload =
        DecodeBase64Url(std::string_view(token).substr(begin, token.find('.', begin) - begin));
    return payload ? std::string(payload->begin(), payload->end()) : std::string();
}

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
    const auto payload = nlohmann::json::parse(PayloadOf(line), nullptr, false);
    if (!payload.is_object() || !payload.contains("name") || !payload["name"].is_string()) {
        throw std::runtime_error(path + " does not contain credentials of a device");
    }
    return payload["name"];
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
