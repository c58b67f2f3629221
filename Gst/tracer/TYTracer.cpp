// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYTracer.h"

#include "TYTracedPlayers.h"

#include <cstdlib>
#include <string>

// GStreamer marks its tracer API as unstable: a later version may change it. Rebuild this
// plugin then.

struct _TYTracer {
    GstTracer parent;
};

namespace {

constexpr const char* kApplication = "application";
constexpr const char* kPlayer = "player";

CTYTracedPlayers& Players() {
    static auto* pPlayers = new CTYTracedPlayers();  // handlers may run until the process ends
    return *pPlayers;
}

void OnStateChange(GstTracer* /*pTracer*/, GstClockTime /*time*/, GstElement* pElement,
                   GstStateChange /*change*/) {
    Players().Attach(pElement);
}

// The parameters of GST_TRACERS="tallyra(application=org.example.player,player=1)".
void ReadParameters(const gchar* pParameters) {
    const std::string text = "tallyra," + std::string(pParameters);
    GstStructure* pStructure = gst_structure_from_string(text.c_str(), nullptr);
    if (pStructure == nullptr) {
        GST_WARNING("tallyra: cannot read the parameters '%s'", pParameters);
        return;
    }
    const gchar* pApplication = gst_structure_get_string(pStructure, kApplication);
    gint player = 0;
    gst_structure_get_int(pStructure, kPlayer, &player);
    Players().Configure(pApplication != nullptr ? pApplication : "", player);
    gst_structure_free(pStructure);
}

}  // namespace

G_DEFINE_TYPE(TYTracer, ty_tracer, GST_TYPE_TRACER)

static void ty_tracer_constructed(GObject* pObject) {
    G_OBJECT_CLASS(ty_tracer_parent_class)->constructed(pObject);
    gchar* pParameters = nullptr;
    g_object_get(pObject, "params", &pParameters, nullptr);
    if (pParameters != nullptr) {
        ReadParameters(pParameters);
    }
    g_free(pParameters);
}

// gst_deinit ends the tracers while GStreamer still works.
static void ty_tracer_dispose(GObject* pObject) {
    Players().DetachAll();
    G_OBJECT_CLASS(ty_tracer_parent_class)->dispose(pObject);
}

static void ty_tracer_class_init(TYTracerClass* pClass) {
    G_OBJECT_CLASS(pClass)->dispose = ty_tracer_dispose;
    G_OBJECT_CLASS(pClass)->constructed = ty_tracer_constructed;
}

static void ty_tracer_init(TYTracer* pSelf) {
    gst_tracing_register_hook(GST_TRACER(pSelf), "element-change-state-pre",
                              G_CALLBACK(OnStateChange));
}

// Observers that are left when the process exits still have reports to send.
static gboolean InitPlugin(GstPlugin* pPlugin) {
    std::atexit([] { Players().DetachAll(); });
    return gst_tracer_register(pPlugin, "tallyra", ty_tracer_get_type());
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, tallyra, "Reports what playbins play",
                  InitPlugin, TALLYRA_VERSION, "Apache 2.0", "tallyra", "tallyra")
