// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The command "regdb": reads, sets, lists and watches keys of the settings store.

#include "RegdbStore.h"

#include "regdb.h"

#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr int kFailure = 1;
constexpr int kUsage = 2;

constexpr const char* kHelp =
    "usage: regdb get KEY         print the value of a key\n"
    "       regdb set KEY VALUE   set a key to an integer\n"
    "       regdb watch KEY       print the value now and after each change, until interrupted\n"
    "       regdb list            print all keys with their values\n"
    "\n"
    "A key is a path, for example db/tallyra/log_on. The store is the file $REGDB_FILE. If that\n"
    "is not set, it is /var/lib/regdb/regdb.ini for root and $XDG_STATE_HOME/regdb/regdb.ini for\n"
    "other users.\n"
    "Exit codes: 0 success, 1 failure, 2 usage error.\n";

const char* Meaning(int code) {
    switch (code) {
        case REGDB_ERROR_INVALID_PARAMETER:
            return "not a key";
        case REGDB_ERROR_NO_FILE:
            return "the store does not exist yet";
        case REGDB_ERROR_NO_KEY:
            return "no such key";
        case REGDB_ERROR_UNREADABLE:
            return "the store cannot be read";
        case REGDB_ERROR_MALFORMED_FILE:
            return "the store is malformed";
        case REGDB_ERROR_MALFORMED_VALUE:
            return "the value is not an integer";
        case REGDB_ERROR_OUT_OF_MEMORY:
            return "out of memory";
        default:
            return "the system refused a thread or a file descriptor";
    }
}

int ReportFailure(const std::string& what, int code) {
    std::fprintf(stderr, "regdb: %s: %s (%d)\n", what.c_str(), Meaning(code), code);
    return kFailure;
}

int Get(const std::string& key) {
    int value = 0;
    if (const int result = regdb_get_bool(key.c_str(), &value); result != REGDB_ERROR_NONE) {
        return ReportFailure(key, result);
    }
    std::printf("%d\n", value);
    return 0;
}

int Set(const std::string& key, const std::string& text) {
    int value = 0;
    const char* pEnd = text.data() + text.size();
    const auto [pStop, error] = std::from_chars(text.data(), pEnd, value);
    if (error != std::errc() || pStop != pEnd) {
        std::fprintf(stderr, "regdb: \"%s\" is not an integer\n", text.c_str());
        return kUsage;
    }
    const int result = CRegdbStore().Write(key, value);
    return result == REGDB_ERROR_NONE ? 0 : ReportFailure(key, result);
}

int List() {
    std::vector<std::pair<std::string, std::string>> keys;
    const CRegdbStore store;
    if (const int result = store.List(&keys); result != REGDB_ERROR_NONE) {
        return ReportFailure(store.Path(), result);
    }
    for (const auto& [key, text] : keys) {
        std::printf("%s %s\n", key.c_str(), text.c_str());
    }
    return 0;
}

void OnChanged(struct _keynode_t* /*pNode*/, void* pKey) {
    const auto& key = *static_cast<const std::string*>(pKey);
    Get(key);
    std::fflush(stdout);
}

int Watch(const std::string& key) {
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    sigprocmask(SIG_BLOCK, &ends, nullptr);
    std::string watched = key;
    if (const int result = regdb_notify_key_changed(key.c_str(), &OnChanged, &watched);
        result != REGDB_ERROR_NONE) {
        return ReportFailure(key, result);
    }
    OnChanged(nullptr, &watched);
    int signal = 0;
    sigwait(&ends, &signal);
    regdb_ignore_key_changed(key.c_str(), &OnChanged);
    return 0;
}

int Run(const std::vector<std::string>& words) {
    const auto is = [&](const char* command, std::size_t count) {
        return words.size() == count && words[0] == command;
    };
    if (is("get", 2)) {
        return Get(words[1]);
    }
    if (is("set", 3)) {
        return Set(words[1], words[2]);
    }
    if (is("watch", 2)) {
        return Watch(words[1]);
    }
    if (is("list", 1)) {
        return List();
    }
    const bool help = is("--help", 1) || is("-h", 1);
    std::fputs(kHelp, help ? stdout : stderr);
    return help ? 0 : kUsage;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run({argv + 1, argv + argc});
    } catch (const std::exception& error) {
        std::fprintf(stderr, "regdb: %s\n", error.what());
        return kFailure;
    }
}
