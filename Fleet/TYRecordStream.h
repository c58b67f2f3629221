// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYRECORDSTREAM_H
#define TALLYRA_TYRECORDSTREAM_H

#include "ITYRecordStream.h"
#include "TYNatsLink.h"

#include <nats/nats.h>

#include <cstdint>

/// The streams of JetStream, by libnats. Makes them, and the consumer that all collectors share, if
/// they are missing.
///
/// Threads: one.
class CTYRecordStream : public ITYRecordStream {
  public:
    struct Options {
        int replicas = 1;                                  ///< of each message, on as many servers
        std::int64_t streamBytes = std::int64_t{1} << 30;  ///< beyond, devices have to wait
        int atOnce = 128;                                  ///< messages that Fetch returns at most
    };

    /// @param link  must outlive this, which closes it in its destructor
    CTYRecordStream(CTYNatsLink& link, const Options& options);
    ~CTYRecordStream() override;
    CTYRecordStream(const CTYRecordStream&) = delete;
    CTYRecordStream& operator=(const CTYRecordStream&) = delete;

    std::vector<Delivery> Fetch(std::chrono::milliseconds timeout) override;
    void Acknowledge(std::size_t index) override;
    void Return(std::size_t index) override;
    void PutAside(const TYMessage& message, const std::string& reason) override;
    TYStreamState State() override;

  private:
    void MakeStream(jsStreamConfig config);
    void MakeStreams();
    void MakeConsumer();
    void Subscribe();

    const Options m_Options;
    CTYNatsLink& m_Link;
    TYNatsPtr<jsCtx> m_pContext;
    TYNatsPtr<natsSubscription> m_pSubscription;
    natsMsgList m_Fetched{};
};

#endif  // TALLYRA_TYRECORDSTREAM_H
