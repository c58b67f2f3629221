// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPostgresConnection.h"

#include "ITYFleetDatabase.h"

#include <algorithm>
#include <array>
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

// Data exceptions and violated constraints. These constraints say nothing about the data:
// - 23503: a row that this object remembers was deleted.
// - 23505: what is covered was lost.
// - 23514: a partition is missing.
bool IsAboutData(const std::string& state) {
    static constexpr std::array<std::string_view, 3> kOthers = {"23503", "23505", "23514"};
    return (state.starts_with("22") || state.starts_with("23")) &&
           std::ranges::find(kOthers, state) == kOthers.end();
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

// If the collector took an error of the schema or of a right for one of the data, it would put
// aside the records of all devices. So only errors that are known to be about the data are.
void CTYPostgresConnection::Rethrow() const {
    try {
        throw;
    } catch (const pqxx::sql_error& error) {
        const std::string text = WithoutPassword(FirstLine(error.what()));
        if (IsAboutData(error.sqlstate())) {
            throw CTYDataRefused(text);
        }
        throw CTYDatabaseUnavailable(text);
    } catch (const pqxx::pqxx_exception& error) {
        throw CTYDatabaseUnavailable(WithoutPassword(FirstLine(error.base().what())));
    }
}
