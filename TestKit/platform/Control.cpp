// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The functions with which a test steers the platform.

#include "Guarded.h"
#include "PlatformHeaders.h"
#include "TestPlatform.h"

#include <algorithm>

namespace {

constexpr int kInvalid = TALLYRA_TESTPLATFORM_ERROR_INVALID_PARAMETER;
constexpr int kNoMemory = TALLYRA_TESTPLATFORM_ERROR_OUT_OF_MEMORY;
constexpr int kTimeout = TALLYRA_TESTPLATFORM_ERROR_TIMEOUT;

CTestPlatform& Platform() {
    return CTestPlatform::Instance();
}

std::chrono::milliseconds Time(int milliseconds) {
    return std::chrono::milliseconds(std::max(milliseconds, 0));
}

int ChangeKey(const char* key, std::optional<int> value) {
    if (!IsKey(key)) {
        return kInvalid;
    }
    return Guarded<int>(kNoMemory, [&] {
        Platform().SetKey(key, value);
        return 0;
    });
}

}  // namespace

void tallyra_testplatform_reset(void) {
    Platform().Reset();
}

int tallyra_testplatform_set_key(const char* key, int value) {
    return ChangeKey(key, value);
}

int tallyra_testplatform_remove_key(const char* key) {
    return ChangeKey(key, std::nullopt);
}

int tallyra_testplatform_set_network(int type) {
    if (type < CONNECTION_TYPE_DISCONNECTED || type > CONNECTION_TYPE_ETHERNET) {
        return kInvalid;
    }
    return Guarded<int>(kNoMemory, [&] {
        Platform().SetNetwork(type);
        return 0;
    });
}

void tallyra_testplatform_set_gateway(int connected) {
    Platform().SetGateway(connected != 0);
}

int tallyra_testplatform_report_network(int result, const char* name) {
    if (name == nullptr) {
        return kInvalid;
    }
    return Guarded<int>(kNoMemory, [&] {
        Platform().Monitors().Report("", {result, name});
        return 0;
    });
}

void tallyra_testplatform_set_rssi(int dbm) {
    Platform().SetRssi(dbm);
}

int tallyra_testplatform_set_version(const char* app_id, const char* version) {
    if (app_id != nullptr && !IsApplication(app_id)) {
        return kInvalid;
    }
    return Guarded<int>(kNoMemory, [&] {
        Platform().SetVersion(
            app_id == nullptr ? "" : app_id,
            version == nullptr ? std::nullopt : std::optional<std::string>(version));
        return 0;
    });
}

int tallyra_testplatform_fail(const char* function, unsigned int nth, int error) {
    return function != nullptr && Platform().Fail(function, {nth, error}) ? 0 : kInvalid;
}

long tallyra_testplatform_calls(const char* function) {
    return function == nullptr ? kInvalid : Platform().Calls(function);
}

int tallyra_testplatform_wait_for_callbacks(int timeout_ms) {
    const auto deadline = std::chrono::steady_clock::now() + Time(timeout_ms);
    const bool drained =
        Platform().Settings().Drain(deadline) && Platform().Monitors().Drain(deadline);
    return drained ? 0 : kTimeout;
}

size_t tallyra_testplatform_log_count(void) {
    return Platform().Lines();
}

int tallyra_testplatform_log_line(size_t index, struct tallyra_testplatform_line* line) {
    const LogLine* pLine = Platform().Line(index);
    if (pLine == nullptr || line == nullptr) {
        return kInvalid;
    }
    *line = {pLine->buffer, pLine->priority, pLine->tag.c_str(), pLine->text.c_str()};
    return 0;
}

long tallyra_testplatform_wait_for_log(const char* part, size_t first, int timeout_ms) {
    if (part == nullptr) {
        return kInvalid;
    }
    const auto found = Platform().AwaitLine(part, first, Time(timeout_ms));
    return found ? static_cast<long>(*found) : kTimeout;
}
