// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Answers on the system bus as NetworkManager, with the value of Metered that it is given: 1 says
// yes, 2 says no.

#include <gio/gio.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

constexpr const char* kName = "org.freedesktop.NetworkManager";
constexpr const char* kPath = "/org/freedesktop/NetworkManager";
constexpr const char* kInterface = R"xml(<node>
  <interface name="org.freedesktop.NetworkManager">
    <property name="Metered" type="u" access="read"/>
    <property name="Connectivity" type="u" access="read"/>
    <property name="State" type="u" access="read"/>
    <property name="NetworkingEnabled" type="b" access="read"/>
    <property name="Version" type="s" access="read"/>
  </interface>
</node>)xml";
constexpr guint32 kFullConnectivity = 4;
constexpr guint32 kConnectedGlobally = 70;

GVariant* Get(GDBusConnection* /*pConnection*/, const char* /*pSender*/, const char* /*pPath*/,
              const char* /*pInterface*/, const char* pProperty, GError** /*ppError*/,
              gpointer pMetered) {
    const std::string_view property = pProperty;
    if (property == "Metered") {
        return g_variant_new_uint32(*static_cast<guint32*>(pMetered));
    }
    if (property == "Connectivity") {
        return g_variant_new_uint32(kFullConnectivity);
    }
    if (property == "State") {
        return g_variant_new_uint32(kConnectedGlobally);
    }
    return property == "Version" ? g_variant_new_string("1.42.4") : g_variant_new_boolean(TRUE);
}

void Serve(GDBusConnection* pConnection, const char* /*pName*/, gpointer pMetered) {
    static constexpr GDBusInterfaceVTable s_table{nullptr, Get, nullptr, {}};
    GDBusNodeInfo* pNode = g_dbus_node_info_new_for_xml(kInterface, nullptr);
    if (g_dbus_connection_register_object(pConnection, kPath, pNode->interfaces[0], &s_table,
                                          pMetered, nullptr, nullptr) == 0) {
        std::exit(EXIT_FAILURE);
    }
    g_dbus_node_info_unref(pNode);
}

void Acquired(GDBusConnection* /*pConnection*/, const char* /*pName*/, gpointer /*pData*/) {
    std::puts("serving");
    std::fflush(stdout);
}

void Lost(GDBusConnection* /*pConnection*/, const char* /*pName*/, gpointer /*pData*/) {
    std::exit(EXIT_FAILURE);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("Usage: tallyra-metered-network VALUE\n", stderr);
        return EXIT_FAILURE;
    }
    auto metered = static_cast<guint32>(std::strtoul(argv[1], nullptr, 10));
    g_bus_own_name(G_BUS_TYPE_SYSTEM, kName, G_BUS_NAME_OWNER_FLAGS_NONE, Serve, Acquired, Lost,
                   &metered, nullptr);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
    return EXIT_SUCCESS;
}
