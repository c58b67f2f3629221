// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_TYHANDLERS_H
#define TALLYRA_GST_TYHANDLERS_H

#include <gst/gst.h>

#include <memory>

// GLib orders the making of a handler's data, its calls, and its deletion by locks that are
// futexes, which ThreadSanitizer does not see. These calls tell it. In other builds, they do
// nothing.

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define TALLYRA_GST_TELLS_SANITIZER 1
#endif
#endif

#ifdef TALLYRA_GST_TELLS_SANITIZER
#include <sanitizer/tsan_interface.h>

inline char g_HandlersMade;
inline char g_HandlersCalled;

inline void ReleaseHandler(char& order) {
    __tsan_release(&order);
}
inline void AcquireHandler(char& order) {
    __tsan_acquire(&order);
}
#else
struct TYNoOrder {};
inline TYNoOrder g_HandlersMade;
inline TYNoOrder g_HandlersCalled;

inline void ReleaseHandler(TYNoOrder /*order*/) {}
inline void AcquireHandler(TYNoOrder /*order*/) {}
#endif

/// Stands at the beginning of a handler: it is called after it was made, and before it is deleted.
/// Two calls are not ordered.
class CTYHandlerScope {
  public:
    CTYHandlerScope() { AcquireHandler(g_HandlersMade); }
    ~CTYHandlerScope() { ReleaseHandler(g_HandlersCalled); }
    CTYHandlerScope(const CTYHandlerScope&) = delete;
    CTYHandlerScope& operator=(const CTYHandlerScope&) = delete;
};

/// Destroys the data of a handler, when GLib does not call it any more.
template <class Data>
void DeleteHandlerData(gpointer pData) {
    AcquireHandler(g_HandlersMade);
    AcquireHandler(g_HandlersCalled);
    delete static_cast<Data*>(pData);
}

/// Connects a handler, which owns its data.
/// @return the number of the handler, to disconnect it
template <class Data>
gulong ConnectHandler(gpointer pObject, const char* pSignal, GCallback handler,
                      std::unique_ptr<Data> pData) {
    ReleaseHandler(g_HandlersMade);
    return g_signal_connect_data(
        pObject, pSignal, handler, pData.release(),
        [](gpointer pOwned, GClosure*) { DeleteHandlerData<Data>(pOwned); }, GConnectFlags{});
}

/// Adds a probe to a pad. It owns its data.
/// @return the number of the probe, to remove it
template <class Data>
gulong AddProbe(GstPad* pPad, GstPadProbeType type, GstPadProbeCallback probe,
                std::unique_ptr<Data> pData) {
    ReleaseHandler(g_HandlersMade);
    return gst_pad_add_probe(pPad, type, probe, pData.release(), DeleteHandlerData<Data>);
}

#endif  // TALLYRA_GST_TYHANDLERS_H
