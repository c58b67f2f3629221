// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "tallyra-gst/tallyra-gst.h"

#include "TYGstObserver.h"

#include <exception>
#include <memory>
#include <string>
#include <utility>

/// The observer behind the C interface.
struct _TallyraGstObserver {
    std::unique_ptr<CTYGstObserver> pObserver;
};

namespace {

std::string TextOf(const gchar* pText) {
    return pText != nullptr ? pText : "";
}

std::string ApplicationOf(const TallyraGstOptions* pOptions) {
    if (pOptions != nullptr && pOptions->application != nullptr) {
        return pOptions->application;
    }
    const gchar* pName = g_get_prgname();
    return pName != nullptr ? pName : "unknown";
}

}  // namespace

TallyraGstObserver* tallyra_gst_attach(GstElement* pipeline, const TallyraGstOptions* options) {
    g_return_val_if_fail(GST_IS_PIPELINE(pipeline), nullptr);
    try {
        const int player = options != nullptr ? options->player : TY_PLAYER_UNKNOWN;
        auto pHandle = std::make_unique<TallyraGstObserver>();
        pHandle->pObserver =
            std::make_unique<CTYGstObserver>(pipeline, ApplicationOf(options), player);
        return pHandle->pObserver->Start(pipeline) ? pHandle.release() : nullptr;
    } catch (const std::exception&) {
        return nullptr;
    }
}

void tallyra_gst_describe(TallyraGstObserver* observer, const TallyraGstContent* content) {
    if (observer == nullptr || content == nullptr || !observer->pObserver->IsOfThisProcess()) {
        return;
    }
    observer->pObserver->Describe([content] {
        TYDescription description;
        description.uri = TextOf(content->uri);
        description.title = TextOf(content->title);
        description.channel = TextOf(content->channel);
        description.genre = TextOf(content->genre);
        description.customInfo = TextOf(content->custom_info);
        description.contentType = content->content_type;
        description.drmType = content->drm_type;
        description.duration = content->duration;
        return description;
    });
}

void tallyra_gst_detach(TallyraGstObserver* observer) {
    if (observer != nullptr && observer->pObserver->IsOfThisProcess()) {
        CTYGstObserver::Detach(std::move(observer->pObserver));
        delete observer;
    }
}
