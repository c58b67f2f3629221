// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_CLAIMS_H
#define TALLYRA_CLAIMS_H

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>

/// What the tokens of a fleet say; public keys are the texts of CTYNkey::Public.

/// @param system  the account that the servers use among themselves
nlohmann::json OperatorClaims(const std::string& key, const std::string& system);

/// The account of the servers themselves.
nlohmann::json SystemClaims(const std::string& key);

/// The account in which all records travel. Users have the rights of the key that signed them.
/// @param device     signs the users of devices
/// @param collector  signs the users of collectors
nlohmann::json FleetClaims(const std::string& key, const std::string& device,
                           const std::string& collector);

/// Revokes all tokens of a user that were signed up to this time.
/// @param claims  of the user's account
/// @param now     seconds since the epoch
void Revoke(nlohmann::json& claims, const std::string& user, std::int64_t now);

/// @param name     becomes part of the subjects that a device may use
/// @param account  whose signing key signs these claims
nlohmann::json UserClaims(const std::string& key, const std::string& name,
                          const std::string& account);

#endif  // TALLYRA_CLAIMS_H
