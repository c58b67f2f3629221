// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_PLATFORM_GLIBPTR_H
#define TALLYRA_PLATFORM_GLIBPTR_H

#include <gio/gio.h>

#include <memory>

/// Frees memory that GLib allocated.
struct GlibFree {
    void operator()(gpointer pMemory) const { g_free(pMemory); }
    void operator()(GError* pError) const { g_error_free(pError); }
    void operator()(GBytes* pBytes) const { g_bytes_unref(pBytes); }
    void operator()(GKeyFile* pFile) const { g_key_file_free(pFile); }
    void operator()(gchar** pStrings) const { g_strfreev(pStrings); }
};

/// Drops a reference to a GObject.
struct GlibUnref {
    void operator()(gpointer pObject) const { g_object_unref(pObject); }
};

template <class Type>
using GlibPtr = std::unique_ptr<Type, GlibFree>;
template <class Type>
using GObjectPtr = std::unique_ptr<Type, GlibUnref>;

#endif  // TALLYRA_PLATFORM_GLIBPTR_H
