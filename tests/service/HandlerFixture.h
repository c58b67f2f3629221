// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SERVICE_HANDLERFIXTURE_H
#define TALLYRA_TESTS_SERVICE_HANDLERFIXTURE_H

#include "KeeperFixture.h"
#include "TYServiceHandler.h"

#include <memory>
#include <string>
#include <string_view>

/// A call as it comes from the bus, put together argument by argument: nothing of the service's own
/// marshalling is used.
class CCall {
  public:
    /// A call without arguments.
    explicit CCall(const char* pPath = "/org/veltra/tv/tallyra/service",
                   const char* pInterface = "org.veltra.tv.tallyra.client",
                   const char* pMember = "TYCallFunction");
    /// @return a call whose first value is the name of a function
    static CCall Of(const char* pFunction);

    CCall& Int(int value);
    CCall& Text(const std::string& text);
    CCall& Bytes(std::string_view bytes);
    CCall& IntsArray();

    /// Appends a whole value, with its index and its type.
    CCall& IntValue(int value) { return Int(m_nIndex++).Int(0).Int(value); }
    CCall& TextValue(const std::string& text) { return Int(m_nIndex++).Int(1).Text(text); }
    CCall& Image(std::string_view bytes) { return Int(m_nIndex++).Int(2).Bytes(bytes); }
    CCall& Record(const TYMediaData& record);

    CCall& From(const char* pSender);
    CCall& WithoutReply();
    DBusMessage* Get() const { return m_pMessage.get(); }

  private:
    TYMessagePtr m_pMessage;
    int m_nIndex = 0;
};

/// A handler over a store in a file, and peers whose names the bus has told.
class CHandlerTest : public CKeeperTest {
  protected:
    /// @return the numbers of the reply in order, as in "1 1"; the name of the error; or "nothing"
    std::string Answer(const CCall& call) { return Answer(m_Handler, call); }
    static std::string Answer(CTYServiceHandler& handler, const CCall& call);

    static TYPeerIdentity Identify(const std::string& name) { return {"bus", name, 1000, 42}; }
    CFileReader Read() const { return CFileReader(m_File); }

    CTYPeers m_Peers{Identify, 0};
    CTYServiceHandler m_Handler{m_Keeper, m_Peers};
};

#endif  // TALLYRA_TESTS_SERVICE_HANDLERFIXTURE_H
