// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_TYGSTERRORS_H
#define TALLYRA_GST_TYGSTERRORS_H

#include "TYGstEvent.h"

#include "tallyra/TYConventions.h"

#include <string>
#include <string_view>

/// The domain of errors of sources, and of what else is opened, read and written.
inline constexpr std::string_view kGstResourceErrors = "gst-resource-error-quark";

/// @return the code that is reported for an error. The HTTP status decides if there is one.
TY_ERROR_TYPE CodeOfGstError(const TYGstError& error);

/// @return domain, message and HTTP status, for people
std::string TextOfGstError(const TYGstError& error);

#endif  // TALLYRA_GST_TYGSTERRORS_H
