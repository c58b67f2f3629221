// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_SERVERCONFIGURATION_H
#define TALLYRA_SERVERCONFIGURATION_H

#include <string>
#include <vector>

/// The tokens that every server needs.
struct ServerTokens {
    std::string trusted;  ///< of the operator
    std::string systemKey;
    std::string system;
    std::string fleetKey;
    std::string fleet;
};

/// Where a server serves clients: HOST or HOST:PORT.
struct ServerAddress {
    std::string host;
    int port = 4222;

    /// @return a name for the server and its files, without characters that paths give a meaning
    std::string Name() const;
    /// Servers speak to each other at a port of their own.
    int ClusterPort() const { return port + 2000; }
};

/// @throws std::runtime_error  if the text is no address
ServerAddress ParseServer(const std::string& text);

/// @return a file that a nats-server's configuration includes: who may connect
std::string ResolverConfiguration(const ServerTokens& tokens);

/// @return the configuration of one nats-server of several
std::string ServerConfiguration(const ServerAddress& server, const std::vector<ServerAddress>& all);

#endif  // TALLYRA_SERVERCONFIGURATION_H
