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

/// @return 0 once the function has run
template <class Function>
int Change(Function function) {
    return Guarded<int>(kNoMemory, [&] {
        function();
        return 0;
    });
}

int ChangeKey(const char* key, std::optional<int> value) {
    return IsKey(key) ? Change([&] { Platform().SetKey(key, value); }) : kInvalid;
}

}  // namespace

int tallyra_testplatform_reset(void) {
    return Change([] { Platform().Reset(); });
}

int tallyra_testplatform_set_key(const char* key, int value) {
    return ChangeKey(key, value);
}

int tallyra_testplatform_remove_key(const char* key) {
    return ChangeKey(key, std::nullopt);
}

int tallyra_testplatform_set_network(int type) {
    const bool valid = type >= CONNECTION_TYPE_DISCONNECTED && type <= CONNECTION_TYPE_ETHERNET;
    return valid ? Change([&] { Platform().SetNetwork(type); }) : kInvalid;
}

int tallyra_testplatform_set_gateway(int connected) {
    return Change([&] { Platform().SetGateway(connected != 0); });
}

int tallyra_testplatform_report_network(int result, const char* name) {
    const auto report = [&] { Platform().Monitors().Report("", {result, name}); };
    return name == nullptr ? kInvalid : Change(report);
}

int tallyra_testplatform_set_rssi(int dbm) {
    return Change([&] { Platform().SetRssi(dbm); });
}

int tallyra_testplatform_set_version(const char* app_id, const char* version) {
    if (app_id != nullptr && !IsApplication(app_id)) {
        return kInvalid;
    }
    return Change([&] {
        Platform().SetVersion(
            app_id == nullptr ? "" : app_id,
            version == nullptr ? std::nullopt : std::optional<std::string>(version));
    });
}

int tallyra_testplatform_fail(const char* function, unsigned int nth, int error) {
    return Guarded<int>(kNoMemory, [&] {
        return function != nullptr && Platform().Fail(function, {nth, error}) ? 0 : kInvalid;
    });
}

long tallyra_testplatform_calls(const char* function) {
    return Guarded<long>(kNoMemory, [&]() -> long {
        return function == nullptr ? kInvalid : Platform().Calls(function);
    });
}

int tallyra_testplatform_wait_for_callbacks(int timeout_ms) {
    return Guarded<int>(kNoMemory, [&] {
        const auto deadline = std::chrono::steady_clock::now() + Time(timeout_ms);
        const bool drained =
            Platform().Settings().Drain(deadline) && Platform().Monitors().Drain(deadline);
        return drained ? 0 : kTimeout;
    });
}

size_t tallyra_testplatform_log_count(void) {
    return Guarded<size_t>(0, [] { return Platform().Lines(); });
}

int tallyra_testplatform_log_line(size_t index, struct tallyra_testplatform_line* line) {
    return Guarded<int>(kNoMemory, [&] {
        const LogLine* pLine = Platform().Line(index);
        if (pLine == nullptr || line == nullptr) {
            return kInvalid;
        }
        *line = {pLine->buffer, pLine->priority, pLine->tag.c_str(), pLine->text.c_str()};
        return 0;
    });
}

long tallyra_testplatform_wait_for_log(const char* part, size_t first, int timeout_ms) {
    return Guarded<long>(kNoMemory, [&]() -> long {
        if (part == nullptr) {
            return kInvalid;
        }
        const auto found = Platform().AwaitLine(part, first, Time(timeout_ms));
        return found ? static_cast<long>(*found) : kTimeout;
    });
}
