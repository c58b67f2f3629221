// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ServerConfiguration.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>

namespace {

constexpr int kLargestPort = 65535 - 2000;

bool IsHostCharacter(char letter) {
    return (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') ||
           (letter >= '0' && letter <= '9') || letter == '-' || letter == '.';
}

// Certificates are checked both ways, among servers too.
std::string Tls(const std::string& name, const char* pIndent) {
    const std::string line = std::string("\n") + pIndent + "  ";
    return std::string(pIndent) + "tls {" + line + "ca_file: \"ca.pem\"" + line + "cert_file: \"" +
           name + ".pem\"" + line + "key_file: \"" + name + ".key\"" + line + "verify: true\n" +
           pIndent + "}\n";
}

std::string Routes(const ServerAddress& server, const std::vector<ServerAddress>& all) {
    std::string text;
    for (const ServerAddress& other : all) {
        if (other.Name() != server.Name()) {
            text +=
                "    \"tls://" + other.host + ":" + std::to_string(other.ClusterPort()) + "\"\n";
        }
    }
    return text;
}

std::string Cluster(const ServerAddress& server, const std::vector<ServerAddress>& all) {
    return "cluster {\n  name: tallyra\n  listen: \"" + server.host + ":" +
           std::to_string(server.ClusterPort()) + "\"\n  routes: [\n" + Routes(server, all) +
           "  ]\n" + Tls(server.Name(), "  ") + "}\n";
}

}  // namespace

std::string ServerAddress::Name() const {
    return port == 4222 ? host : host + "-" + std::to_string(port);
}

ServerAddress ParseServer(const std::string& text) {
    ServerAddress server;
    const std::size_t colon = text.find(':');
    server.host = text.substr(0, colon);
    bool isGood = !server.host.empty() && server.host.front() != '-' &&
                  server.host.front() != '.' &&
                  std::all_of(server.host.begin(), server.host.end(), IsHostCharacter);
    if (colon != std::string::npos) {
        const char* pEnd = text.data() + text.size();
        const auto [pRest, error] = std::from_chars(text.data() + colon + 1, pEnd, server.port);
        isGood = isGood && error == std::errc() && pRest == pEnd && server.port > 0 &&
                 server.port <= kLargestPort;
    }
    if (!isGood) {
        throw std::runtime_error("\"" + text + "\" is no HOST or HOST:PORT");
    }
    return server;
}

std::string ResolverConfiguration(const ServerTokens& tokens) {
    return "# Who may connect, and which rights they have. Include this file into the "
           "configuration\n"
           "# of each nats-server. It holds no secret.\n"
           "operator: " +
           tokens.trusted + "\nsystem_account: " + tokens.systemKey +
           "\nresolver: MEMORY\nresolver_preload: {\n  " + tokens.systemKey + ": " + tokens.system +
           "\n  " + tokens.fleetKey + ": " + tokens.fleet + "\n}\n";
}

std::string ServerConfiguration(const ServerAddress& server,
                                const std::vector<ServerAddress>& all) {
    std::string text =
        "# Start nats-server in the folder that holds this file, resolver.conf and "
        "the certificates.\nserver_name: \"" +
        server.Name() + "\"\nlisten: \"" + server.host + ":" + std::to_string(server.port) +
        "\"\njetstream {\n" + "  store_dir: \"store\"\n}\n" + Tls(server.Name(), "");
    if (all.size() > 1) {
        text += Cluster(server, all);
    }
    return text + "include \"resolver.conf\"\n";
}
