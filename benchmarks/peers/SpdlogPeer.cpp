// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Peers.h"
#include "Wire.h"

#include <spdlog/async.h>
#include <spdlog/sinks/sink.h>

#include <atomic>

namespace {

constexpr std::size_t kQueueLines = 8192;

/// Counts lines without writing them: the file system is not measured.
class CCountingSink : public spdlog::sinks::sink {
  public:
    void log(const spdlog::details::log_msg& message) override {
        m_nLines += message.payload.size() == kImageBytes ? 1 : 0;
    }
    void flush() override {}
    void set_pattern(const std::string&) override {}
    void set_formatter(std::unique_ptr<spdlog::formatter>) override {}

    std::int64_t Lines() const { return m_nLines; }

  private:
    std::atomic<std::int64_t> m_nLines = 0;
};

class CSpdlogPeer : public IPeer {
  public:
    CSpdlogPeer()
        : m_pLogger(std::make_shared<spdlog::async_logger>("bench", m_pSink, m_pPool,
                                                           spdlog::async_overflow_policy::block)) {}

    void Send() override {
        m_pLogger->info("{}", m_strText);
        ++m_nSent;
    }

    void Settle() override {
        Await([this] { return m_pSink->Lines() == m_nSent; }, "spdlog does not write every line");
    }

  private:
    const std::string m_strText = std::string(kImageBytes, 'x');
    std::int64_t m_nSent = 0;
    std::shared_ptr<CCountingSink> m_pSink = std::make_shared<CCountingSink>();
    std::shared_ptr<spdlog::details::thread_pool> m_pPool =
        std::make_shared<spdlog::details::thread_pool>(kQueueLines, 1);
    std::shared_ptr<spdlog::async_logger> m_pLogger;
};

}  // namespace

std::unique_ptr<IPeer> MakeSpdlogPeer() {
    return std::make_unique<CSpdlogPeer>();
}
