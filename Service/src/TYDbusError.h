// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYDBUSERROR_H
#define TALLYRA_TYDBUSERROR_H

#include <dbus/dbus.h>

/// A DBusError that frees itself.
///
/// Threads: one.
class CTYDbusError {
  public:
    CTYDbusError() { dbus_error_init(&m_Error); }
    ~CTYDbusError() { dbus_error_free(&m_Error); }
    CTYDbusError(const CTYDbusError&) = delete;
    CTYDbusError& operator=(const CTYDbusError&) = delete;

    DBusError* Get() { return &m_Error; }
    bool IsSet() const { return dbus_error_is_set(&m_Error) != FALSE; }
    /// @param pName  names a D-Bus error, for example DBUS_ERROR_NO_REPLY
    bool Is(const char* pName) const { return dbus_error_has_name(&m_Error, pName) != FALSE; }
    /// @return the message, valid as long as this object; "no reason" if there is none
    const char* Message() const {
        return m_Error.message != nullptr ? m_Error.message : "no reason";
    }

  private:
    DBusError m_Error;
};

#endif  // TALLYRA_TYDBUSERROR_H
