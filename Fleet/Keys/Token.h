// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOKEN_H
#define TALLYRA_TOKEN_H

#include "TYNkey.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <string_view>

/// Signs claims as the JSON web token that a nats-server reads.
/// @param claims  get the issuer, the time and an identifier of their own
/// @param now     seconds since the epoch
std::string SignToken(nlohmann::json claims, const CTYNkey& issuer, std::int64_t now);

/// @return the claims of a token, whose signature is not checked
/// @throws std::runtime_error  if the text is no token
nlohmann::json ClaimsOf(std::string_view token);

#endif  // TALLYRA_TOKEN_H
