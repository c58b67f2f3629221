// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_TYHANDLERORDER_H
#define TALLYRA_GST_TYHANDLERORDER_H

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

inline char g_HandlerOrder;

inline void ReleaseHandlers() {
    __tsan_release(&g_HandlerOrder);
}
inline void AcquireHandlers() {
    __tsan_acquire(&g_HandlerOrder);
}
#else
inline void ReleaseHandlers() {}
inline void AcquireHandlers() {}
#endif

/// Stands at the beginning of a handler, and of what deletes its data.
class CTYHandlerScope {
  public:
    CTYHandlerScope() { AcquireHandlers(); }
    ~CTYHandlerScope() { ReleaseHandlers(); }
    CTYHandlerScope(const CTYHandlerScope&) = delete;
    CTYHandlerScope& operator=(const CTYHandlerScope&) = delete;
};

#endif  // TALLYRA_GST_TYHANDLERORDER_H
