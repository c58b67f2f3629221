// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Target "forward": messages of a hostile device to the collector. What can be decoded can be
// encoded again, and is stored once.
//
// An input has three lines, the values of Tallyra-After, Tallyra-Arrivals and Tallyra-Origin, and
// behind them the body. If the body begins with 'z', the rest is a header and what its frame
// contains, so that the fuzzer need not learn to compress.

#include "TYFleetStore.h"
#include "TYForwardMessage.h"
#include "TYRecordImage.h"
#include "Target.h"

#include <algorithm>

namespace {

constexpr std::size_t kHeaderSize = 16;
constexpr const char* kSubject = "tallyra.records.tv1.30303030-0000-4000-8000-000000000001";

std::string TakeLine(std::string_view& input) {
    const std::size_t end = std::min(input.find('\n'), input.size());
    std::string line(input.substr(0, end));
    input.remove_prefix(std::min(end + 1, input.size()));
    return line;
}

std::string BodyOf(std::string_view input) {
    if (!input.starts_with('z') || input.size() <= kHeaderSize) {
        return std::string(input);
    }
    input.remove_prefix(1);
    std::string body(input.substr(0, kHeaderSize));
    input.remove_prefix(kHeaderSize);
    body.resize(kHeaderSize + ZSTD_compressBound(input.size()));
    body.resize(kHeaderSize + ZSTD_compress(body.data() + kHeaderSize, body.size() - kHeaderSize,
                                            input.data(), input.size(), 1));
    return body;
}

TYMessage MessageFrom(std::string_view input) {
    TYMessage message{kSubject};
    for (const char* pName : {"Tallyra-After", "Tallyra-Arrivals", "Tallyra-Origin"}) {
        message.headers.emplace_back(pName, TakeLine(input));
    }
    message.body = BodyOf(input);
    return message;
}

void CheckStored(const TYForwardedBatch& batch) {
    static CTYFleetStore store(":memory:", {});
    store.Add({&batch, 1});
    const std::int64_t stored = store.StoredUpTo(batch.device, batch.epoch);
    Require(batch.after > 0 || stored >= batch.Last(), "what follows nothing is stored");
    const auto again = store.Add({&batch, 1});
    Require(again.size() == 1 && again[0].stored == stored, "a repetition changes nothing");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t size) {
    static CTYForwardMessage codec;
    const TYMessage message = MessageFrom({reinterpret_cast<const char*>(pData), size});
    TYForwardedBatch batch;
    try {
        batch = codec.Decode(message);
    } catch (const CTYBadMessage&) {
        return 0;
    }
    Require(batch.after < batch.first && batch.records.size() <= CTYForwardMessage::kMostRecords &&
                batch.urls.size() == batch.records.size() &&
                batch.arrivals.size() == batch.records.size(),
            "a batch is consistent");
    const TYForwardedBatch again = codec.Decode(codec.Encode(batch));
    Require(again.first == batch.first && again.arrivals == batch.arrivals &&
                again.urls == batch.urls &&
                std::ranges::equal(again.records, batch.records, {}, ImageOf, ImageOf),
            "what is encoded again is the same");
    CheckStored(batch);
    return 0;
}
