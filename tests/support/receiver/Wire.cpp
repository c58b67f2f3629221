// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "receiver/Wire.h"

#include <algorithm>
#include <memory>
#include <string_view>

namespace receiver {
namespace {

constexpr std::size_t kTriple = 3;
constexpr std::int32_t kTypeInt = 0;
constexpr std::int32_t kTypeString = 1;
constexpr std::int32_t kTypeBinary = 2;

struct VariantUnref {
    void operator()(GVariant* pVariant) const { g_variant_unref(pVariant); }
};
using VariantPtr = std::unique_ptr<GVariant, VariantUnref>;

std::string At(std::size_t nArgument) {
    return "argument " + std::to_string(nArgument) + ": ";
}

std::string TypeOf(GVariant* pValue) {
    return std::string("'") + g_variant_get_type_string(pValue) + "'";
}

std::optional<std::int32_t> ReadInt(GVariant* pBody, std::size_t nArgument, std::string_view what,
                                    std::string& strProblem) {
    const VariantPtr pValue(g_variant_get_child_value(pBody, nArgument));
    if (!g_variant_is_of_type(pValue.get(), G_VARIANT_TYPE_INT32)) {
        strProblem = At(nArgument) + std::string(what) + " must be an INT32 ('i'), but is " +
                     TypeOf(pValue.get());
        return std::nullopt;
    }
    return g_variant_get_int32(pValue.get());
}

bool CheckIndex(GVariant* pBody, std::size_t nArgument, std::string& strProblem) {
    const auto expected = static_cast<std::int32_t>(nArgument / kTriple);
    const auto index = ReadInt(pBody, nArgument, "the index", strProblem);
    if (index && *index != expected) {
        strProblem = At(nArgument) + "index " + std::to_string(*index) + ", expected " +
                     std::to_string(expected);
    }
    return strProblem.empty();
}

const GVariantType* PayloadType(std::int32_t nType) {
    switch (nType) {
        case kTypeInt:
            return G_VARIANT_TYPE_INT32;
        case kTypeString:
            return G_VARIANT_TYPE_STRING;
        case kTypeBinary:
            return G_VARIANT_TYPE_BYTESTRING;
        default:
            return nullptr;
    }
}

Value ReadPayload(GVariant* pPayload, std::int32_t nType) {
    if (nType == kTypeInt) {
        return g_variant_get_int32(pPayload);
    }
    gsize nLength = 0;
    if (nType == kTypeString) {
        const char* pText = g_variant_get_string(pPayload, &nLength);
        return std::string(pText, nLength);
    }
    const auto* pBytes =
        static_cast<const std::uint8_t*>(g_variant_get_fixed_array(pPayload, &nLength, 1));
    return pBytes == nullptr ? Bytes() : Bytes(pBytes, pBytes + nLength);
}

bool DecodeTriple(GVariant* pBody, std::size_t nFirst, Body& body) {
    if (!CheckIndex(pBody, nFirst, body.strProblem)) {
        return false;
    }
    const auto type = ReadInt(pBody, nFirst + 1, "the type", body.strProblem);
    if (!type) {
        return false;
    }
    const GVariantType* pDue = PayloadType(*type);
    if (pDue == nullptr) {
        body.strProblem = At(nFirst + 1) + "type " + std::to_string(*type) + " is not 0, 1 or 2";
        return false;
    }
    const VariantPtr pPayload(g_variant_get_child_value(pBody, nFirst + 2));
    if (!g_variant_is_of_type(pPayload.get(), pDue)) {
        body.strProblem = At(nFirst + 2) + "type " + std::to_string(*type) +
                          " with a payload of type " + TypeOf(pPayload.get());
        return false;
    }
    body.values.push_back(ReadPayload(pPayload.get(), *type));
    return true;
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

void AddProblem(Record& record, const std::string& strText) {
    record.strProblem += (record.strProblem.empty() ? "" : "; ") + strText;
}

}  // namespace

Body DecodeBody(GVariant* pBody) {
    Body body;
    if (pBody == nullptr) {
        return body;
    }
    if (!g_variant_is_of_type(pBody, G_VARIANT_TYPE_TUPLE)) {
        body.strProblem = "the body is not a tuple, but of type " + TypeOf(pBody);
        return body;
    }
    const std::size_t nArguments = g_variant_n_children(pBody);
    const std::size_t nWhole = nArguments - nArguments % kTriple;
    std::size_t n = 0;
    while (n < nWhole && DecodeTriple(pBody, n, body)) {
        n += kTriple;
    }
    if (body.strProblem.empty() && nWhole != nArguments) {
        body.strProblem = At(nWhole) + "the body ends inside a triple (" +
                          std::to_string(nArguments) + " arguments)";
    }
    return body;
}

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
        AddProblem(record, "an image of " + std::to_string(image.size()) + " bytes, expected " +
                               std::to_string(kImageSize));
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
            AddProblem(record, pName + (" has no NUL in its " + std::to_string(nWidth)) + " bytes");
        }
    }
    if (record.nanoseconds < 0 || record.nanoseconds >= 1'000'000'000) {
        AddProblem(record, "time has " + std::to_string(record.nanoseconds) + " nanoseconds");
    }
    return record;
}

Batch DecodeBatch(std::span<const Value> arguments) {
    Batch batch;
    for (std::size_t n = 0; n < arguments.size(); ++n) {
        // Value 0 is the function's name.
        const std::string strWhere = "value " + std::to_string(n + 1) + ": ";
        if (const auto* pImage = std::get_if<Bytes>(&arguments[n]); pImage && batch.urls.empty()) {
            batch.images.push_back(*pImage);
        } else if (const auto* pUrl = std::get_if<std::string>(&arguments[n])) {
            batch.urls.push_back(*pUrl);
        } else {
            batch.strProblem =
                strWhere + (pImage ? "an image after the URLs" : "neither an image nor a URL");
            return batch;
        }
    }
    if (batch.images.size() != batch.urls.size()) {
        batch.strProblem = std::to_string(batch.images.size()) + " images, but " +
                           std::to_string(batch.urls.size()) + " URLs";
    }
    return batch;
}

}  // namespace receiver
