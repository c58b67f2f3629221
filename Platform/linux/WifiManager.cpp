// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "DefaultRoute.h"

#include "wifi_manager.h"

#include <linux/nl80211.h>
#include <netlink/attr.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>
#include <netlink/msg.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <exception>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <system_error>
#include <vector>

namespace {

using Mac = std::array<std::uint8_t, 6>;
using Attributes = std::array<nlattr*, NL80211_ATTR_MAX + 1>;

struct MessageFree {
    void operator()(nl_msg* pMessage) const { nlmsg_free(pMessage); }
};

/// A station as the driver lists it.
struct Station {
    int link;
    Mac mac;
    std::optional<int> signal;
};

}  // namespace

struct wifi_manager_s {};

struct wifi_manager_ap_s {
    int link;
    Mac mac;
};

namespace {

/// One query to nl80211. Each query opens its own socket, because several threads may use a handle.
class CWirelessQuery {
  public:
    /// @return false when nl80211 cannot be reached
    bool Open() {
        m_pSocket.reset(nl_socket_alloc());
        if (m_pSocket == nullptr || genl_connect(m_pSocket.get()) < 0) {
            return false;
        }
        m_nFamily = genl_ctrl_resolve(m_pSocket.get(), "nl80211");
        return m_nFamily >= 0;
    }

    /// Requests a list and passes the attributes of each entry to `onAnswer`.
    /// @throws std::system_error on a netlink error, and any exception of `onAnswer`
    void List(std::uint8_t command, int link,
              const std::function<void(const Attributes&)>& onAnswer) {
        const std::unique_ptr<nl_msg, MessageFree> message(nlmsg_alloc());
        if (message == nullptr || genlmsg_put(message.get(), NL_AUTO_PORT, NL_AUTO_SEQ, m_nFamily,
                                              0, NLM_F_DUMP, command, 0) == nullptr) {
            throw std::bad_alloc();
        }
        if (link != 0) {
            nla_put_u32(message.get(), NL80211_ATTR_IFINDEX, static_cast<std::uint32_t>(link));
        }
        Listener listener{onAnswer, nullptr};
        nl_socket_modify_cb(m_pSocket.get(), NL_CB_VALID, NL_CB_CUSTOM, &OnMessage, &listener);
        const bool listed = nl_send_auto(m_pSocket.get(), message.get()) >= 0 &&
                            nl_recvmsgs_default(m_pSocket.get()) >= 0;
        if (listener.failure != nullptr) {
            std::rethrow_exception(listener.failure);
        }
        if (!listed) {
            throw std::system_error(std::make_error_code(std::errc::io_error));
        }
    }

  private:
    struct Listener {
        const std::function<void(const Attributes&)>& onAnswer;
        std::exception_ptr failure;
    };

    // Called by libnl. An exception must not unwind through C code, so List rethrows it.
    static int OnMessage(nl_msg* pMessage, void* pListener) try {
        Attributes attributes{};
        auto* pHeader = static_cast<genlmsghdr*>(nlmsg_data(nlmsg_hdr(pMessage)));
        if (nla_parse(attributes.data(), NL80211_ATTR_MAX, genlmsg_attrdata(pHeader, 0),
                      genlmsg_attrlen(pHeader, 0), nullptr) == 0) {
            static_cast<Listener*>(pListener)->onAnswer(attributes);
        }
        return NL_OK;
    } catch (...) {
        static_cast<Listener*>(pListener)->failure = std::current_exception();
        return NL_STOP;
    }

    NlSocketPtr m_pSocket;
    int m_nFamily = -1;
};

std::optional<int> SignalOf(const Attributes& attributes) {
    std::array<nlattr*, NL80211_STA_INFO_MAX + 1> info{};
    if (attributes[NL80211_ATTR_STA_INFO] == nullptr ||
        nla_parse_nested(info.data(), NL80211_STA_INFO_MAX, attributes[NL80211_ATTR_STA_INFO],
                         nullptr) != 0 ||
        info[NL80211_STA_INFO_SIGNAL] == nullptr) {
        return std::nullopt;
    }
    return static_cast<std::int8_t>(nla_get_u8(info[NL80211_STA_INFO_SIGNAL]));
}

std::vector<int> StationLinks(CWirelessQuery& query) {
    std::vector<int> links;
    query.List(NL80211_CMD_GET_INTERFACE, 0, [&](const Attributes& attributes) {
        if (attributes[NL80211_ATTR_IFINDEX] != nullptr &&
            attributes[NL80211_ATTR_IFTYPE] != nullptr &&
            nla_get_u32(attributes[NL80211_ATTR_IFTYPE]) == NL80211_IFTYPE_STATION) {
            links.push_back(static_cast<int>(nla_get_u32(attributes[NL80211_ATTR_IFINDEX])));
        }
    });
    return links;
}

// In station mode the driver lists one station: the access point.
std::optional<Station> StationOn(CWirelessQuery& query, int link) {
    std::optional<Station> station;
    query.List(NL80211_CMD_GET_STATION, link, [&](const Attributes& attributes) {
        nlattr* pMac = attributes[NL80211_ATTR_MAC];
        if (pMac != nullptr && nla_len(pMac) == static_cast<int>(sizeof(Mac))) {
            station = Station{link, {}, SignalOf(attributes)};
            std::memcpy(station->mac.data(), nla_data(pMac), sizeof(Mac));
        }
    });
    return station;
}

int FindAccessPoint(wifi_manager_ap_h* pAp) {
    CWirelessQuery query;
    if (!query.Open()) {
        return WIFI_MANAGER_ERROR_NO_DEVICE;
    }
    for (const int link : StationLinks(query)) {
        if (const auto station = StationOn(query, link)) {
            *pAp = new wifi_manager_ap_s{station->link, station->mac};
            return WIFI_MANAGER_ERROR_NONE;
        }
    }
    return WIFI_MANAGER_ERROR_NO_CONNECTION;
}

int ReadSignal(const wifi_manager_ap_s& ap, int* pRssi) {
    CWirelessQuery query;
    if (!query.Open()) {
        return WIFI_MANAGER_ERROR_NO_DEVICE;
    }
    const auto station = StationOn(query, ap.link);
    if (!station || station->mac != ap.mac) {
        return WIFI_MANAGER_ERROR_NO_CONNECTION;
    }
    if (!station->signal) {
        return WIFI_MANAGER_ERROR_NO_SIGNAL;
    }
    *pRssi = *station->signal;
    return WIFI_MANAGER_ERROR_NONE;
}

int Initialize(wifi_manager_h* pWifi) {
    CWirelessQuery query;
    if (!query.Open() || StationLinks(query).empty()) {
        return WIFI_MANAGER_ERROR_NO_DEVICE;
    }
    *pWifi = new wifi_manager_s;
    return WIFI_MANAGER_ERROR_NONE;
}

template <typename Function>
int WithoutExceptions(Function function) {
    try {
        return function();
    } catch (const std::bad_alloc&) {
        return WIFI_MANAGER_ERROR_OUT_OF_MEMORY;
    } catch (const std::system_error&) {
        return WIFI_MANAGER_ERROR_OPERATION_FAILED;
    }
}

}  // namespace

int wifi_manager_initialize(wifi_manager_h* wifi) {
    if (wifi == nullptr) {
        return WIFI_MANAGER_ERROR_INVALID_PARAMETER;
    }
    return WithoutExceptions([&] { return Initialize(wifi); });
}

int wifi_manager_deinitialize(wifi_manager_h wifi) {
    if (wifi == nullptr) {
        return WIFI_MANAGER_ERROR_INVALID_PARAMETER;
    }
    delete wifi;
    return WIFI_MANAGER_ERROR_NONE;
}

int wifi_manager_get_connected_ap(wifi_manager_h wifi, wifi_manager_ap_h* ap) {
    if (wifi == nullptr || ap == nullptr) {
        return WIFI_MANAGER_ERROR_INVALID_PARAMETER;
    }
    return WithoutExceptions([&] { return FindAccessPoint(ap); });
}

int wifi_manager_ap_get_rssi(wifi_manager_ap_h ap, int* rssi) {
    if (ap == nullptr || rssi == nullptr) {
        return WIFI_MANAGER_ERROR_INVALID_PARAMETER;
    }
    return WithoutExceptions([&] { return ReadSignal(*ap, rssi); });
}

int wifi_manager_ap_destroy(wifi_manager_ap_h ap) {
    if (ap == nullptr) {
        return WIFI_MANAGER_ERROR_INVALID_PARAMETER;
    }
    delete ap;
    return WIFI_MANAGER_ERROR_NONE;
}
