#pragma once

// The two ends that take raw records for e2e_events, and the tally they share.
//
//   BareConsumer    libbpf alone on ring 0: epoll wait, ring_buffer__consume,
//                   count. The most a consumer of this ring can deliver.
//   ClientConsumer  a client of the running service: connects to its socket,
//                   subscribes, and reads type-3 packages off the stream.
//
// Both stamp each batch with CLOCK_BOOTTIME when it is in hand (after the
// wait, or after the recv) and pass every record to Tally::add with the
// record's own boot-time stamp (bytes 8-15), so latency means the same on
// both: from the program writing the record to a consumer holding it.
//
// Threading: each consumer runs one thread that calls Tally::add under the
// tally's mutex, a batch at a time; delivered() may be read from any thread.

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <atomic>
#include <initializer_list>
#include <mutex>
#include <thread>
#include <vector>

#include "support/wire.h"

struct ring_buffer;

namespace kavo::bench {

// Records of the subscribed types stamped inside one measuring window, and
// their latency in 1-microsecond buckets.
class Tally {
 public:
  explicit Tally(std::initializer_list<int> types);

  // A new window from |startNs| on (no end yet); forgets the last one.
  void open(uint64_t startNs);
  // Records stamped after |endNs| no longer count.
  void close(uint64_t endNs);
  // One record in hand since |receiptNs|. Call with mutex() held.
  void add(uint32_t type, uint64_t stampNs, uint64_t receiptNs);

  std::mutex& mutex() { return mutex_; }
  uint64_t delivered() const { return delivered_.load(std::memory_order_relaxed); }
  // The latency below which |fraction| of the window's records arrived, in
  // microseconds (upper edge of its bucket), and the largest one.
  double percentileUs(double fraction);
  double maxUs();

 private:
  // 1 us each up to 100 ms; the last one takes everything above.
  static constexpr size_t kBuckets = 100001;

  std::mutex mutex_;
  bool wanted_[8] = {};
  std::atomic<uint64_t> start_{0};
  std::atomic<uint64_t> end_{UINT64_MAX};
  std::atomic<uint64_t> delivered_{0};
  uint64_t maxNs_ = 0;
  // Touched once here, so that counting never faults in a page: the
  // benchmark's own RSS changes are records of the very type it counts.
  std::vector<uint64_t> buckets_;
};

class BareConsumer {
 public:
  explicit BareConsumer(Tally* tally);
  ~BareConsumer();
  BareConsumer(const BareConsumer&) = delete;
  BareConsumer& operator=(const BareConsumer&) = delete;

  // The consuming thread's id, for its CPU time.
  pid_t tid() const { return tid_.load(); }

 private:
  static int OnSample(void* ctx, void* data, size_t size);
  void run();

  Tally* tally_;
  struct ring_buffer* ring_ = nullptr;
  uint64_t receiptNs_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<pid_t> tid_{0};
  std::thread thread_;
};

class ClientConsumer {
 public:
  explicit ClientConsumer(Tally* tally);
  ~ClientConsumer();
  ClientConsumer(const ClientConsumer&) = delete;
  ClientConsumer& operator=(const ClientConsumer&) = delete;

  // Connects (retrying while the service starts), subscribes to |types| and
  // waits for every response. False when the service did not answer.
  bool start(std::initializer_list<int> types);

 private:
  void run();
  // Takes every whole frame out of the first |have| bytes of buffer_;
  // returns the bytes left over (a partial frame).
  size_t parse(size_t have, uint64_t receiptNs);

  Tally* tally_;
  kavo::test::RawClient client_;
  std::vector<char> buffer_;
  std::atomic<int> responses_{0};
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace kavo::bench
