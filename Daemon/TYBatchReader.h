// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYBATCHREADER_H
#define TALLYRA_TYBATCHREADER_H

#include "TYPeers.h"
#include "TYStore.h"

#include <dbus/dbus.h>

#include <functional>
#include <string>

/// Told about each oddity of a batch, with details for the log.
using TYComplain = std::function<void(TYComplaint, const std::string& detail)>;

/// Reads the records and URLs of a SendData call.
///
/// A batch is images followed by URLs in the same order. One image of the wrong size makes the
/// whole batch unreadable. Missing URLs become null; surplus ones are dropped.
/// @param pCall  well-formed, see ShapeOf
/// @param batch  gets the records and URLs
/// @return whether the batch can be read
bool ReadBatch(DBusMessage* pCall, const TYComplain& complain, TYBatch& batch);

#endif  // TALLYRA_TYBATCHREADER_H
