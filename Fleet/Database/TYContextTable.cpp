// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYContextTable.h"

#include "TYRecordImage.h"
#include "TYSqlText.h"

#include <openssl/evp.h>

#include <array>
#include <stdexcept>
#include <string_view>
#include <tuple>

// Problem: almost all bytes of a record equal those of the one before it, records of many
// thousands of devices arrive mixed, and looking up contexts in the database would dominate.
//
// Idea: remember the ids of recently used contexts by a digest of device, bytes and URL. A context
// that is not remembered gets a new row, even if the table has an equal one: duplicates cost
// space, never correctness. The digest is a cryptographic one, because devices choose the bytes.
//
// Always true:
// - Between transactions, every remembered id names a committed row of the remembered day. So all
//   are forgotten when a transaction fails, and when the day changes.
// - At most kMostKept ids are remembered, about 150 bytes each.

namespace {

// As the sequence gives them.
constexpr std::int64_t kIdsAtOnce = 1024;
constexpr std::size_t kDigestSize = 16;

// Other collectors may take ids meanwhile, so the sequence only moves forward.
constexpr const char* kSkipIds =
    "SELECT count(nextval('context_ids')) FROM generate_series(1, "
    "((SELECT max(id) FROM contexts) - (SELECT last_value FROM context_ids)) / 1024 + 1)";

std::string DigestOf(int device, const std::string& common, const std::optional<std::string>& url) {
    std::string content = std::to_string(device) + (url ? " u" : " -");
    content += std::to_string(common.size()) + ' ' + common;
    content += url.value_or("");
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    if (EVP_Digest(content.data(), content.size(), digest.data(), nullptr, EVP_sha256(), nullptr) !=
        1) {
        throw std::runtime_error("no digest can be computed");
    }
    return {reinterpret_cast<const char*>(digest.data()), kDigestSize};
}

constexpr std::array kColumns = {
    "id",         "day",          "device",      "duration",        "player_id",  "network_type",
    "drm_type",   "content_type", "playback_id", "service_version", "service_id", "url",
    "channel_id", "title",        "genre",       "custom_info",     "common"};

}  // namespace

void CTYContextTable::Begin(const std::string& day) {
    if (day != m_strDay) {
        Forget();
        m_strDay = day;
    }
}

void CTYContextTable::Forget() {
    m_Known.clear();
    m_Used.clear();
    m_New.clear();
}

std::int64_t CTYContextTable::IdOf(pqxx::transaction_base& transaction, int device,
                                   const TYMediaData& record,
                                   const std::optional<std::string>& url) {
    std::string common = CommonPart(record);
    const std::string digest = DigestOf(device, common, url);
    if (const auto known = m_Known.find(digest); known != m_Known.end()) {
        m_Used.splice(m_Used.begin(), m_Used, known->second.used);
        return known->second.id;
    }
    const std::int64_t id = NextId(transaction);
    m_New.push_back({id, device, record, std::move(common), url});
    Remember(digest, id);
    return id;
}

void CTYContextTable::Remember(const std::string& digest, std::int64_t id) {
    if (m_Known.size() >= kMostKept) {
        m_Known.erase(m_Used.back());
        m_Used.pop_back();
    }
    m_Used.push_front(digest);
    m_Known.emplace(digest, Known{id, m_Used.begin()});
}

// Ids that a failed transaction has taken are never used.
std::int64_t CTYContextTable::NextId(pqxx::transaction_base& transaction) {
    if (m_nLeftIds == 0) {
        m_nNextId = transaction.exec1("SELECT nextval('context_ids')")[0].as<std::int64_t>();
        m_nLeftIds = kIdsAtOnce;
    }
    --m_nLeftIds;
    return m_nNextId++;
}

void CTYContextTable::SkipUsedIds(pqxx::transaction_base& transaction) {
    transaction.exec1(kSkipIds);
    m_nLeftIds = 0;
}

void CTYContextTable::Write(pqxx::transaction_base& transaction) {
    if (m_New.empty()) {
        return;
    }
    pqxx::stream_to rows(transaction, "contexts", kColumns);
    for (const New& each : m_New) {
        const TYMediaData& record = each.record;
        const TYRecordTexts texts = TextsOf(record);
        const std::string url = each.url ? ValidText(*each.url) : "";
        rows << std::tuple(each.id, m_strDay, each.device, record.content.duration,
                           static_cast<int>(record.playerID), static_cast<int>(record.networkType),
                           static_cast<int>(record.content.drmType),
                           static_cast<int>(record.content.contentType), texts.playbackID,
                           texts.serviceVersion, texts.serviceID, each.url ? url.c_str() : nullptr,
                           texts.channelID, texts.title, texts.genre, texts.customInfo,
                           ByteaText(each.common));
    }
    rows.complete();
    m_New.clear();
}
