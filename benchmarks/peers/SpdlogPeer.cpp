// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Peers.h"

#include <spdlog/async.h>
#include <spdlog/sinks/sink.h>

namespace {

/// Counts lines without writing them: the file system is not measured.
class CCountingSink : public spdlog::sinks::sink {
  public:
    explicit CCountingSink(std::atomic<std::int64_t>& lines) : m_nLines(lines) {}

    void log(const spdlog::details::log_msg& message) override {
        m_nLines += message.payload.size() == kImageBytes ? 1 : 0;
    }
    void flush() override {}
    void set_pattern(const std::string&) override {}
    void set_formatter(std::unique_ptr<spdlog::formatter>) override {}

  private:
    std::atomic<std::int64_t>& m_nLines;
};

class CSpdlogPeer : public IPeer {
  public:
    void Send() override {
        m_pLogger->info("{}", m_strRecord);
        ++m_nSent;
    }

  private:
    static constexpr std::size_t kQueueLines = 8192;

    const std::shared_ptr<spdlog::details::thread_pool> m_pPool =
        std::make_shared<spdlog::details::thread_pool>(kQueueLines, 1);
    const std::shared_ptr<spdlog::async_logger> m_pLogger =
        std::make_shared<spdlog::async_logger>("bench", std::make_shared<CCountingSink>(m_nTaken),
                                               m_pPool, spdlog::async_overflow_policy::block);
};

}  // namespace

std::unique_ptr<IPeer> MakeSpdlogPeer() {
    return std::make_unique<CSpdlogPeer>();
}
