// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "receiver/Wire.h"

#include <algorithm>
#include <memory>
#include <optional>

namespace receiver {
namespace {

constexpr std::size_t kTriple = 3;
constexpr std::size_t kImageSize = 4800;

struct VariantUnref {
    void operator()(GVariant* pVariant) const { g_variant_unref(pVariant); }
};
using VariantPtr = std::unique_ptr<GVariant, VariantUnref>;

std::optional<std::int32_t> IntAt(GVariant* pBody, std::size_t nArgument) {
    const VariantPtr pValue(g_variant_get_child_value(pBody, nArgument));
    return g_variant_is_of_type(pValue.get(), G_VARIANT_TYPE_INT32)
               ? std::optional(g_variant_get_int32(pValue.get()))
               : std::nullopt;
}

// Appends the payload to the values. Returns the problem.
std::string ReadPayload(GVariant* pPayload, std::int32_t nType, std::vector<Value>& values) {
    gsize nLength = 0;
    if (nType == 0 && g_variant_is_of_type(pPayload, G_VARIANT_TYPE_INT32)) {
        values.emplace_back(g_variant_get_int32(pPayload));
    } else if (nType == 1 && g_variant_is_of_type(pPayload, G_VARIANT_TYPE_STRING)) {
        const char* pText = g_variant_get_string(pPayload, &nLength);
        values.emplace_back(std::string(pText, nLength));
    } else if (nType == 2 && g_variant_is_of_type(pPayload, G_VARIANT_TYPE_BYTESTRING)) {
        const auto* pBytes =
            static_cast<const std::uint8_t*>(g_variant_get_fixed_array(pPayload, &nLength, 1));
        values.emplace_back(pBytes == nullptr ? Bytes() : Bytes(pBytes, pBytes + nLength));
    } else {
        return "type " + std::to_string(nType) + " with a payload of type '" +
               g_variant_get_type_string(pPayload) + "'";
    }
    return "";
}

std::string ReadTriple(GVariant* pBody, std::size_t nFirst, std::vector<Value>& values) {
    if (nFirst + kTriple > g_variant_n_children(pBody)) {
        return "the body ends inside a triple";
    }
    if (IntAt(pBody, nFirst) != static_cast<std::int32_t>(nFirst / kTriple)) {
        return "a wrong index";
    }
    const auto type = IntAt(pBody, nFirst + 1);
    if (!type) {
        return "a type that is no INT32";
    }
    const VariantPtr pPayload(g_variant_get_child_value(pBody, nFirst + 2));
    return ReadPayload(pPayload.get(), *type, values);
}

// Returns the problem of the first malformed triple.
std::string ReadBody(GVariant* pBody, std::vector<Value>& values) {
    const std::size_t nArguments = pBody == nullptr ? 0 : g_variant_n_children(pBody);
    for (std::size_t n = 0; n < nArguments; n += kTriple) {
        const std::string strProblem = ReadTriple(pBody, n, values);
        if (!strProblem.empty()) {
            return "value " + std::to_string(n / kTriple) + ": " + strProblem;
        }
    }
    return "";
}

// The arguments of "SendData" are images, and then as many URLs.
std::string ReadRecords(Call& call) {
    const std::size_t nRecords = call.values.size() / 2;
    std::string strProblem = call.values.size() % 2 == 0 ? "" : "an odd number of arguments; ";
    for (std::size_t n = 0; n < nRecords; ++n) {
        const auto* pImage = std::get_if<Bytes>(&call.values[n]);
        const auto* pUrl = std::get_if<std::string>(&call.values[nRecords + n]);
        if (pImage == nullptr || pUrl == nullptr) {
            return strProblem + "not images and then as many URLs";
        }
        call.records.push_back({DecodeRecord(*pImage), *pUrl});
        strProblem += call.records.back().record.strProblem;
    }
    return strProblem;
}

std::string ReadArguments(Call& call) {
    if (call.strFunction == "SendData") {
        return ReadRecords(call);
    }
    const bool isOneString =
        call.values.size() == 1 && std::holds_alternative<std::string>(call.values.front());
    if (call.strFunction == "GetPolicyInfo") {
        return isOneString ? "" : "the only argument must be a string";
    }
    if (call.strFunction == "Kick") {
        return isOneString && std::get<std::string>(call.values.front()) == "Kick"
                   ? ""
                   : "the only argument must be the string \"Kick\"";
    }
    return "unknown function";
}

GVariant* EncodePayload(const Value& value) {
    if (const auto* pNumber = std::get_if<std::int32_t>(&value)) {
        return g_variant_new_int32(*pNumber);
    }
    if (const auto* pText = std::get_if<std::string>(&value)) {
        return g_variant_new_string(pText->c_str());
    }
    const Bytes& bytes = std::get<Bytes>(value);
    return g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1);
}

using Image = std::span<const std::uint8_t>;

// A text that must end with a NUL in its field of the image.
struct TextField {
    const char* pName;
    std::size_t nOffset;
    std::size_t nWidth;
    std::string Record::*pText;
};
constexpr TextField kTexts[] = {{"serviceVersion", 27, 12, &Record::serviceVersion},
                                {"serviceID", 39, 50, &Record::serviceId},
                                {"channelID", 114, 256, &Record::channelId},
                                {"title", 370, 256, &Record::title},
                                {"genre", 626, 68, &Record::genre},
                                {"customInfo", 694, 4096, &Record::customInfo}};

struct NumberField {
    std::size_t nOffset;
    std::int32_t Record::*pNumber;
};
constexpr NumberField kNumbers[] = {{96, &Record::param1},
                                    {100, &Record::param2},
                                    {104, &Record::duration},
                                    {4792, &Record::seconds},
                                    {4796, &Record::nanoseconds}};

// All numbers are little-endian.
std::uint32_t ReadNumber(Image image, std::size_t nOffset) {
    std::uint32_t value = 0;
    for (std::size_t n = 0; n < sizeof(value); ++n) {
        value |= static_cast<std::uint32_t>(image[nOffset + n]) << (8 * n);
    }
    return value;
}

// A text that may fill its field without a NUL.
std::string ReadText(Image image, std::size_t nOffset, std::size_t nWidth) {
    const auto field = image.subspan(nOffset, nWidth);
    return {field.begin(), std::find(field.begin(), field.end(), 0)};
}

}  // namespace

GVariant* EncodeBody(const std::vector<Value>& values) {
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE_TUPLE);
    std::int32_t nIndex = 0;
    for (const Value& value : values) {
        g_variant_builder_add_value(&builder, g_variant_new_int32(nIndex++));
        g_variant_builder_add_value(&builder,
                                    g_variant_new_int32(static_cast<std::int32_t>(value.index())));
        g_variant_builder_add_value(&builder, EncodePayload(value));
    }
    return g_variant_builder_end(&builder);
}

Record DecodeRecord(Image image) {
    Record record;
    if (image.size() != kImageSize) {
        record.strProblem = "an image of " + std::to_string(image.size()) + " bytes; ";
        return record;
    }
    record.playerId = static_cast<std::int8_t>(image[0]);
    record.networkType = image[1];
    record.playbackId = ReadText(image, 2, 25);
    record.event = image[92];
    record.urlSlot = ReadNumber(image, 108);
    record.drmType = image[112];
    record.contentType = image[113];
    for (const auto& [nOffset, pNumber] : kNumbers) {
        record.*pNumber = static_cast<std::int32_t>(ReadNumber(image, nOffset));
    }
    for (const auto& [pName, nOffset, nWidth, pText] : kTexts) {
        record.*pText = ReadText(image, nOffset, nWidth);
        if ((record.*pText).size() == nWidth) {
            record.strProblem += std::string(pName) + " without a NUL; ";
        }
    }
    if (record.nanoseconds < 0 || record.nanoseconds >= 1'000'000'000) {
        record.strProblem += std::to_string(record.nanoseconds) + " nanoseconds; ";
    }
    return record;
}

Call DecodeCall(GVariant* pBody) {
    Call call;
    call.strProblem = ReadBody(pBody, call.values);
    if (call.values.empty() || !std::holds_alternative<std::string>(call.values.front())) {
        call.strProblem += " without the name of a function";
        return call;
    }
    call.strFunction = std::get<std::string>(call.values.front());
    call.values.erase(call.values.begin());
    if (call.strProblem.empty()) {
        call.strProblem = ReadArguments(call);
    }
    return call;
}

}  // namespace receiver
