// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYKeyFolder.h"

#include "Claims.h"
#include "SecretFile.h"
#include "ServerConfiguration.h"
#include "TYSubjects.h"
#include "Token.h"

#include <sys/stat.h>

#include <algorithm>
#include <sstream>
#include <stdexcept>

// The folder:
//
//   operator.jwt              what servers trust
//   accounts/NAME.jwt         SYS, TALLYRA
//   seeds/NAME.seed           operator, SYS, TALLYRA, device, collector; with them anybody can make
//                             credentials, so only their owner may read them
//   users/NAME                public keys of the credentials made for this name, one a line
//   resolver.conf             the tokens above, for nats-server
//   SERVER.conf               a whole configuration of each server that was named
//
// The seed of a user is in its credentials only. A device that loses them gets new ones.

namespace {

constexpr unsigned kSecret = 0600;
constexpr unsigned kOpen = 0644;

void CheckName(const std::string& name) {
    if (!TYSubjects::IsDeviceName(name)) {
        throw std::runtime_error("a name has 1 to 64 characters out of A-Z, a-z, 0-9, _ and -");
    }
}

// The form that clients of NATS read.
std::string Credentials(const std::string& token, const std::string& seed) {
    return "-----BEGIN NATS USER JWT-----\n" + token +
           "\n------END NATS USER JWT------\n\n"
           "************************* IMPORTANT *************************\n"
           "With the seed below, anybody can connect in this name. Keep it secret.\n\n"
           "-----BEGIN USER NKEY SEED-----\n" +
           seed +
           "\n------END USER NKEY SEED------\n\n"
           "*************************************************************\n";
}

std::string FirstLine(const std::string& text) {
    return text.substr(0, text.find('\n'));
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

void MakeFolders(const std::filesystem::path& path) {
    for (const auto& each : {path, path / "accounts", path / "seeds", path / "users"}) {
        std::filesystem::create_directories(each);
    }
    std::filesystem::permissions(path / "seeds", std::filesystem::perms::owner_all);
}

void WriteServers(const std::filesystem::path& path, const std::vector<ServerAddress>& servers) {
    for (const ServerAddress& server : servers) {
        ReplaceFile(path / (server.Name() + ".conf"), ServerConfiguration(server, servers), kOpen);
    }
}

}  // namespace

void CTYKeyFolder::Init(const std::vector<std::string>& servers, std::int64_t now) const {
    if (std::filesystem::exists(m_Path / "operator.jwt")) {
        throw std::runtime_error(m_Path.string() + " holds keys already");
    }
    std::vector<ServerAddress> addresses;
    std::transform(servers.begin(), servers.end(), std::back_inserter(addresses), ParseServer);
    MakeFolders(m_Path);
    const CTYNkey trusted = CTYNkey::Make(NkeyKind::OPERATOR);
    const CTYNkey system = CTYNkey::Make(NkeyKind::ACCOUNT);
    const CTYNkey fleet = CTYNkey::Make(NkeyKind::ACCOUNT);
    const CTYNkey device = CTYNkey::Make(NkeyKind::ACCOUNT);
    const CTYNkey collector = CTYNkey::Make(NkeyKind::ACCOUNT);
    KeepKey("operator", trusted);
    KeepKey("SYS", system);
    KeepKey("TALLYRA", fleet);
    KeepKey("device", device);
    KeepKey("collector", collector);
    KeepToken("accounts/SYS", SignToken(SystemClaims(system.Public()), trusted, now));
    KeepToken(
        "accounts/TALLYRA",
        SignToken(FleetClaims(fleet.Public(), device.Public(), collector.Public()), trusted, now));
    // Last, because it shows that the folder is complete.
    KeepToken("operator",
              SignToken(OperatorClaims(trusted.Public(), system.Public()), trusted, now));
    WriteResolver();
    WriteServers(m_Path, addresses);
}

std::string CTYKeyFolder::MakeDevice(const std::string& name, std::int64_t now) const {
    return MakeUser("device", name, now);
}

std::string CTYKeyFolder::MakeCollector(const std::string& name, std::int64_t now) const {
    return MakeUser("collector", name, now);
}

int CTYKeyFolder::Revoke(const std::string& name, std::int64_t now) const {
    CheckName(name);
    const std::filesystem::path users = m_Path / "users" / name;
    if (!std::filesystem::exists(users)) {
        throw std::runtime_error("\"" + name + "\" has no credentials");
    }
    nlohmann::json claims = ClaimsOf(Token("accounts/TALLYRA"));
    const std::vector<std::string> keys = Lines(ReadWholeFile(users));
    for (const std::string& key : keys) {
        ::Revoke(claims, key, now);
    }
    KeepToken("accounts/TALLYRA", SignToken(std::move(claims), Key("operator"), now));
    WriteResolver();
    return static_cast<int>(keys.size());
}

std::string CTYKeyFolder::MakeUser(const char* pRole, const std::string& name,
                                   std::int64_t now) const {
    CheckName(name);
    const CTYNkey signer = Key(pRole);
    const CTYNkey user = CTYNkey::Make(NkeyKind::USER);
    const std::string token =
        SignToken(UserClaims(user.Public(), name, Key("TALLYRA").Public()), signer, now);
    const std::filesystem::path users = m_Path / "users" / name;
    const std::string before = std::filesystem::exists(users) ? ReadWholeFile(users) : "";
    // First of all, so that no credentials exist that cannot be revoked.
    ReplaceFile(users, before + user.Public() + "\n", kOpen);
    return Credentials(token, user.Seed());
}

CTYNkey CTYKeyFolder::Key(const std::string& name) const {
    return CTYNkey::FromSeed(FirstLine(ReadWholeFile(m_Path / "seeds" / (name + ".seed"))));
}

void CTYKeyFolder::KeepKey(const std::string& name, const CTYNkey& key) const {
    ReplaceFile(m_Path / "seeds" / (name + ".seed"), key.Seed() + "\n", kSecret);
}

void CTYKeyFolder::KeepToken(const std::string& name, const std::string& token) const {
    ReplaceFile(m_Path / (name + ".jwt"), token + "\n", kOpen);
}

std::string CTYKeyFolder::Token(const std::string& name) const {
    return FirstLine(ReadWholeFile(m_Path / (name + ".jwt")));
}

void CTYKeyFolder::WriteResolver() const {
    ReplaceFile(m_Path / "resolver.conf",
                ResolverConfiguration({.trusted = Token("operator"),
                                       .systemKey = Key("SYS").Public(),
                                       .system = Token("accounts/SYS"),
                                       .fleetKey = Key("TALLYRA").Public(),
                                       .fleet = Token("accounts/TALLYRA")}),
                kOpen);
}
