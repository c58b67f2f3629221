// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Claims.h"

// Problem: thousands of devices share one account. None may send records in another's name, or see
// what another sends; and what a device may do must not depend on what somebody writes into its
// token.
//
// Idea: scoped signing keys. The account's token holds two keys and a template of rights for each.
// The servers give a user the rights of the template whose key signed its token, with the user's
// name put in for {{name()}}, and refuse a token that brings rights of its own. A name has no dot
// and no wildcard, so a device cannot name itself into the subjects of others.
//
// The rights of a device follow from what it sends and reads: records and questions under its own
// name, its watermark, and the replies to its own requests. Replies go to an inbox below its name:
// with one common prefix, each device could read the replies to all others.
//
// Always true:
// - A device publishes and subscribes only subjects in which its own name is a whole token.
// - The servers check the subject of what a device publishes, so it names the device that sent it.
//   What a server publishes is not checked: it sends its acknowledgement to whatever subject a
//   device names for the reply, and that may be in the stream under the name of another device.
//   Acknowledgements are small JSON texts, which the collector refuses as malformed.
// - A collector never publishes records.

namespace {

constexpr int kVersion = 2;
constexpr int kUnlimited = -1;
// A forwarder subscribes to its inbox and its watermark; a few more are for its reconnecting.
constexpr int kSubscriptionsOfDevice = 16;

using nlohmann::json;

json Claims(const std::string& key, const char* pName, const char* pType, json nats) {
    nats["type"] = pType;
    nats["version"] = kVersion;
    return {{"sub", key}, {"name", pName}, {"nats", std::move(nats)}};
}

json AccountLimits() {
    json limits = {{"wildcards", true}};
    for (const char* pName : {"subs", "data", "payload", "imports", "exports", "conn", "leaf"}) {
        limits[pName] = kUnlimited;
    }
    return limits;
}

json Scope(const std::string& key, const char* pRole, json rights, int subscriptions) {
    rights["subs"] = subscriptions;
    rights["data"] = kUnlimited;
    rights["payload"] = kUnlimited;
    return {{"kind", "user_scope"}, {"key", key}, {"role", pRole}, {"template", std::move(rights)}};
}

json RightsOfDevice() {
    return {{"pub", {{"allow", {"tallyra.records.{{name()}}.*", "tallyra.ask.{{name()}}"}}}},
            {"sub", {{"allow", {"tallyra.stored.{{name()}}", "_INBOX.{{name()}}.>"}}}}};
}

json RightsOfCollector() {
    return {{"pub",
             {{"allow", {"$JS.API.>", "$JS.ACK.>", "tallyra.stored.*", "tallyra.bad.*"}},
              {"deny", {"tallyra.records.>"}}}},
            {"sub", {{"allow", {"tallyra.ask.*", "_INBOX.>"}}}}};
}

}  // namespace

json OperatorClaims(const std::string& key, const std::string& system) {
    return Claims(key, "tallyra", "operator", {{"system_account", system}});
}

json SystemClaims(const std::string& key) {
    return Claims(key, "SYS", "account", {{"limits", AccountLimits()}});
}

json FleetClaims(const std::string& key, const std::string& device, const std::string& collector) {
    json limits = AccountLimits();
    for (const char* pName : {"mem_storage", "disk_storage", "streams", "consumer"}) {
        limits[pName] = kUnlimited;
    }
    json keys = {Scope(device, "device", RightsOfDevice(), kSubscriptionsOfDevice),
                 Scope(collector, "collector", RightsOfCollector(), kUnlimited)};
    return Claims(key, "TALLYRA", "account",
                  {{"limits", std::move(limits)}, {"signing_keys", std::move(keys)}});
}

void Revoke(json& claims, const std::string& user, std::int64_t now) {
    claims["nats"]["revocations"][user] = now;
}

json UserClaims(const std::string& key, const std::string& name, const std::string& account) {
    // The servers refuse a token with rights or limits of its own if a scoped key signed it.
    return Claims(key, name.c_str(), "user", {{"issuer_account", account}});
}
