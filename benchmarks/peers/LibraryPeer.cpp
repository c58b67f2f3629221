// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Peers.h"

namespace {

class CLibraryPeer : public IPeer {
  public:
    explicit CLibraryPeer(const CStage& stage) : m_Player(stage) {}

    void Begin() override { m_Player.Begin(); }
    void Send() override { m_Player.Send(); }
    void Settle() override {
        m_Player.End();
        m_Player.AwaitAccepted();
    }

  private:
    CPlayer m_Player;
};

}  // namespace

std::unique_ptr<IPeer> MakeLibraryPeer(const CStage& stage) {
    return std::make_unique<CLibraryPeer>(stage);
}
