// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYBATCH_H
#define TALLYRA_TYBATCH_H

#include "TYMediaData.h"
#include "ThreadSafeQueue.h"

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

/// One batch: the records that were queued when the sender counted them. The sender delivers them
/// in as many calls of the service as necessary.
///
/// A D-Bus signature limits a call to 36 records. If each call were a batch of its own, a service
/// that hangs would cost one reply timeout for each 36 records, and the queue would grow faster
/// than it empties. So the first call that fails ends the whole batch. Next() takes records from
/// the queue only for the call that it builds, so memory stays constant. The destructor drops the
/// records of the batch that no call has taken, after a failed call or an allocation failure.
///
/// Threads: the sender's. Another thread may empty the queue at the same time; the batch then ends
/// early.
class CTYBatch {
  public:
    using Queue = CThreadSafeQueue<TYMediaRecord*>;

    /// Records in one call. A message has 255 characters of signature: 3 for the function's name,
    /// 4 for each image and 3 for each URL.
    static constexpr std::size_t kMaxCallRecords = 36;
    /// Bytes in one call. The system bus disconnects a client that sends more than 32 MiB, and
    /// replacing invalid UTF-8 may triple the length of a text.
    static constexpr std::size_t kMaxCallBytes = std::size_t{8} << 20;
    /// The longest URL that fits into one call together with its record. The collector cuts longer
    /// URLs; the batch does not check them.
    static constexpr std::size_t kMaxUrlBytes = kMaxCallBytes - sizeof(TYMediaData);

    /// What one call of the service carries: images, and the URL of each at the same index.
    struct Call {
        std::vector<TYMediaData> images;
        std::vector<std::string> urls;
    };

    CTYBatch(Queue& queue, std::size_t records) : m_Queue(queue), m_nLeft(records) {}
    ~CTYBatch();
    CTYBatch(const CTYBatch&) = delete;
    CTYBatch& operator=(const CTYBatch&) = delete;

    /// Fills `call` with the next records, in the order of the queue.
    /// @return false when no record is left
    bool Next(Call& call);

  private:
    bool TakeOne();
    bool Fits(const Call& call, std::size_t bytes) const;

    Queue& m_Queue;
    std::size_t m_nLeft;
    // Taken from the queue and not in a call yet.
    std::unique_ptr<TYMediaRecord> m_pTaken;
};

#endif  // TALLYRA_TYBATCH_H
