// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Peers.h"

#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>

namespace {

struct Record {
    std::array<char, kImageBytes> image;
    std::string url;
};

class CFloorPeer : public IPeer {
  public:
    CFloorPeer() { m_Image.fill('x'); }
    ~CFloorPeer() override { Push(nullptr); }

    void Send() override {
        auto record = std::make_unique_for_overwrite<Record>();
        record->image = m_Image;
        record->url = m_strUrl;
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        std::memcpy(record->image.data(), &now, sizeof(now));
        Push(std::move(record));
        ++m_nSent;
    }

  private:
    void Push(std::unique_ptr<Record> record) {
        {
            const std::lock_guard lock(m_Mutex);
            m_Queue.push_back(std::move(record));
        }
        m_Pushed.notify_one();
    }

    std::unique_ptr<Record> Take() {
        std::unique_lock lock(m_Mutex);
        m_Pushed.wait(lock, [this] { return !m_Queue.empty(); });
        std::unique_ptr<Record> record = std::move(m_Queue.front());
        m_Queue.pop_front();
        return record;
    }

    void Consume() {
        while (Take() != nullptr) {
            ++m_nTaken;
        }
    }

    std::array<char, kImageBytes> m_Image{};
    const std::string m_strUrl = kUrl;
    std::mutex m_Mutex;
    std::condition_variable m_Pushed;
    std::deque<std::unique_ptr<Record>> m_Queue;
    std::jthread m_Thread{[this] { Consume(); }};
};

}  // namespace

std::unique_ptr<IPeer> MakeFloorPeer() {
    return std::make_unique<CFloorPeer>();
}
