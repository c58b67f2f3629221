// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ReportPage.h"

#include "ReportParts.h"

#include <glib.h>

#include <memory>
#include <string_view>

// Problem: a report shows texts that players sent, such as titles, in a page that runs scripts. An
// operator opens it from the local disk, where a script could read more than a web page can.
//
// Idea: the texts are only data. They are in one element of JSON in which no character can end the
// element or begin a tag, and the page's script puts them into the document as text. Should that
// ever fail, the policy in the page's head remains: the browser runs scripts and uses styles only
// if their hashes are in it, and loads nothing at all.
//
// Always true:
// - The page has no script and no style attribute besides the elements whose hashes are listed.
// - The policy precedes everything else that it concerns.
//
// Vega compiles expressions with Function(), which the policy forbids. Its own interpreter takes
// the place of that: see charts.js.

namespace {

std::string HashOf(std::string_view text) {
    constexpr std::size_t kDigestLength = 32;
    const std::unique_ptr<GChecksum, decltype(&g_checksum_free)> pSum(
        g_checksum_new(G_CHECKSUM_SHA256), &g_checksum_free);
    g_checksum_update(pSum.get(), reinterpret_cast<const guchar*>(text.data()),
                      static_cast<gssize>(text.size()));
    guint8 digest[kDigestLength];
    gsize length = kDigestLength;
    g_checksum_get_digest(pSum.get(), digest, &length);
    const std::unique_ptr<gchar, decltype(&g_free)> pBase64(g_base64_encode(digest, length),
                                                            &g_free);
    return std::string("'sha256-") + pBase64.get() + "'";
}

std::string Policy() {
    return "default-src 'none'; script-src " + HashOf(kReportVega) + " " + HashOf(kReportScript) +
           "; style-src " + HashOf(kReportStyle) + "; base-uri 'none'; form-action 'none'";
}

// The text that stands for a placeholder.
std::string TextFor(std::string_view name, const std::string& data) {
    const std::pair<std::string_view, std::string_view> parts[] = {
        {"NOTICES", kReportNotices},
        {"STYLE", kReportStyle},
        {"DEFINITIONS", kReportDefinitions},
        {"CHARTS", kReportCharts},
        {"VEGA", kReportVega},
        {"SCRIPT", kReportScript},
        {"DATA", data}};
    for (const auto& [partName, text] : parts) {
        if (partName == name) {
            return std::string(text);
        }
    }
    return Policy();
}

}  // namespace

// Placeholders are names between two at signs. Nothing is replaced in what replaces them.
void WriteReportPage(std::ostream& out, const std::string& data) {
    std::string_view rest = kReportPage;
    for (std::size_t at = rest.find('@'); at != std::string_view::npos; at = rest.find('@')) {
        const std::size_t end = rest.find('@', at + 1);
        out << rest.substr(0, at) << TextFor(rest.substr(at + 1, end - at - 1), data);
        rest.remove_prefix(end + 1);
    }
    out << rest;
}
