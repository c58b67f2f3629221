// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPostgresConnection.h"

#include "ITYFleetDatabase.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <stdexcept>
#include <string_view>

namespace {

// Without these, a server that vanishes blocks the caller for a quarter of an hour.
constexpr std::array kDefaults = {"connect_timeout=10", "tcp_user_timeout=30000"};

// Texts and numbers as the other sources read and write them. The queries are short and many:
// compiling them would take longer than running them.
constexpr const char* kSettings =
    "SET TimeZone = 'UTC'; SET DateStyle = 'ISO'; SET bytea_output = 'hex'; "
    "SET lock_timeout = '30s'; SET jit = off";

std::string WithParameter(const std::string& url, const std::string& parameter) {
    const std::string name = parameter.substr(0, parameter.find('=') + 1);
    const std::size_t query = url.find('?');
    if (query == std::string::npos) {
        return url + '?' + parameter;
    }
    return url.find(name, query) == std::string::npos ? url + '&' + parameter : url;
}

std::string Complete(std::string url, const char* pName) {
    for (const char* pDefault : kDefaults) {
        url = WithParameter(url, pDefault);
    }
    return WithParameter(url, std::string("application_name=") + pName);
}

std::string PasswordIn(const std::string& url) {
    constexpr std::string_view kParameter = "password=";
    if (const auto at = url.find(kParameter); at != std::string::npos) {
        const std::size_t begin = at + kParameter.size();
        return url.substr(begin, url.find('&', begin) - begin);
    }
    const std::size_t user = url.find("://") + 3;
    const std::size_t host = url.rfind('@', url.find('?'));
    const std::size_t password = url.find(':', user);
    const bool hasOne = host != std::string::npos && password < host;
    return hasOne ? url.substr(password + 1, host - password - 1) : "";
}

// Errors of the server or of the machine that it runs on, and the end of a connection. Everything
// else is about the data or the schema, and comes again with each attempt.
bool IsTemporary(const std::string& state) {
    static constexpr std::array<std::string_view, 11> kStates = {
        "08",              // connection exceptions
        "25006",           // a standby, which only reads
        "25P03",           // idle in a transaction for too long
        "40",              // deadlock, serialization
        "53",              // full disk, no memory, too many connections
        "55006", "55P03",  // in use, locked
        "57",              // shutting down, starting, cancelled
        "58",              // errors of the system, such as I/O
        "72",    "XX000"};
    return std::ranges::any_of(kStates,
                               [&](std::string_view begin) { return state.starts_with(begin); });
}

std::string FirstLine(const std::string& text) {
    return text.substr(0, text.find('\n'));
}

}  // namespace

CTYPostgresConnection::CTYPostgresConnection(const std::string& url, const char* pName)
    : m_strUrl(Complete(url, pName)), m_strPassword(PasswordIn(url)) {}

pqxx::connection& CTYPostgresConnection::Open() {
    if (m_pConnection == nullptr) {
        m_pConnection = std::make_unique<pqxx::connection>(m_strUrl);
        pqxx::nontransaction(*m_pConnection).exec(kSettings);
    }
    return *m_pConnection;
}

std::string CTYPostgresConnection::WithoutPassword(std::string text) const {
    for (std::size_t at = 0;
         !m_strPassword.empty() && (at = text.find(m_strPassword, at)) != std::string::npos;) {
        text.replace(at, m_strPassword.size(), "***");
        at += 3;
    }
    return text;
}

// libpqxx has no class of its own for a connection that ends while data is copied: it is a failure
// that is no sql_error.
void CTYPostgresConnection::Rethrow() const {
    try {
        throw;
    } catch (const pqxx::sql_error& error) {
        const std::string text = WithoutPassword(FirstLine(error.what()));
        if (error.sqlstate().empty() || IsTemporary(error.sqlstate())) {
            throw CTYDatabaseUnavailable(text);
        }
        throw std::runtime_error(text);
    } catch (const pqxx::failure& error) {
        throw CTYDatabaseUnavailable(WithoutPassword(FirstLine(error.what())));
    } catch (const pqxx::pqxx_exception& error) {
        throw std::runtime_error(WithoutPassword(FirstLine(error.base().what())));
    }
}
