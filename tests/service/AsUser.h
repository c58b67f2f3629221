// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SERVICE_ASUSER_H
#define TALLYRA_TESTS_SERVICE_ASUSER_H

#include "Test.h"

/// The user "nobody", who owns no files.
constexpr uid_t kNobody = 65534;

/// While alive, a process of root has another effective user. Root bypasses file permissions, so
/// tests of permissions and bus policies need one. Does nothing unless the process is root's.
class CAsUser {
  public:
    explicit CAsUser(uid_t user) : m_bIsRoot(geteuid() == 0) {
        if (m_bIsRoot && seteuid(user) != 0) {
            throw std::system_error(errno, std::generic_category(), "seteuid");
        }
    }
    ~CAsUser() {
        if (m_bIsRoot && seteuid(0) != 0) {
            std::terminate();
        }
    }
    CAsUser(const CAsUser&) = delete;
    CAsUser& operator=(const CAsUser&) = delete;

  private:
    const bool m_bIsRoot;
};

#endif  // TALLYRA_TESTS_SERVICE_ASUSER_H
