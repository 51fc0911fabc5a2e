#include "event_consumers.h"

#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "bench_support.h"
#include "bpf/kavo_bpf_records.h"
#include "service/kavo_bpf_service.h"

namespace kavo::bench {

namespace {

// How long a consumer waits before it looks at its stop flag again.
constexpr int kWaitMs = 50;
// Frames on the socket: u32 size, u32 type, u32 body size, body.
constexpr size_t kFrameHeader = 12;
constexpr size_t kClientBuffer = 1 << 20;

}  // namespace

Tally::Tally(std::initializer_list<int> types) : buckets_(kBuckets, 0) {
  for (int type : types) wanted_[type & 7] = true;
}

void Tally::open(uint64_t startNs) {
  std::lock_guard<std::mutex> guard(mutex_);
  std::fill(buckets_.begin(), buckets_.end(), 0);
  maxNs_ = 0;
  delivered_.store(0, std::memory_order_relaxed);
  end_.store(UINT64_MAX, std::memory_order_relaxed);
  start_.store(startNs, std::memory_order_relaxed);
}

void Tally::close(uint64_t endNs) { end_.store(endNs, std::memory_order_relaxed); }

void Tally::add(uint32_t type, uint64_t stampNs, uint64_t receiptNs) {
  if (type > 7 || !wanted_[type]) return;
  if (stampNs < start_.load(std::memory_order_relaxed) ||
      stampNs > end_.load(std::memory_order_relaxed)) {
    return;
  }
  const uint64_t latency = receiptNs > stampNs ? receiptNs - stampNs : 0;
  if (latency > maxNs_) maxNs_ = latency;
  ++buckets_[std::min<uint64_t>(latency / 1000, kBuckets - 1)];
  delivered_.fetch_add(1, std::memory_order_relaxed);
}

double Tally::percentileUs(double fraction) {
  std::lock_guard<std::mutex> guard(mutex_);
  const uint64_t total = delivered_.load(std::memory_order_relaxed);
  if (total == 0) return 0;
  const uint64_t rank = static_cast<uint64_t>(fraction * static_cast<double>(total) + 0.5);
  uint64_t seen = 0;
  for (size_t bucket = 0; bucket < kBuckets; ++bucket) {
    seen += buckets_[bucket];
    if (seen >= rank && seen != 0) return static_cast<double>(bucket + 1);
  }
  return static_cast<double>(kBuckets);
}

double Tally::maxUs() {
  std::lock_guard<std::mutex> guard(mutex_);
  return static_cast<double>(maxNs_) / 1000.0;
}

// ---- BareConsumer ---------------------------------------------------------

BareConsumer::BareConsumer(Tally* tally) : tally_(tally) {
  using Kavo::Bpf::KavoBpfService;
  android::base::unique_fd ring(bpf_obj_get(KavoBpfService::RINGBUF_MAP_PATH[0].c_str()));
  if (ring.get() < 0) Die("bare consumer: opening the ring");
  // libbpf maps the ring and keeps its own reference to it.
  ring_ = ring_buffer__new(ring.get(), OnSample, this, nullptr);
  if (ring_ == nullptr) Die("bare consumer: ring_buffer__new");
  thread_ = std::thread(&BareConsumer::run, this);
  while (tid_.load() == 0) std::this_thread::yield();
}

BareConsumer::~BareConsumer() {
  stop_ = true;
  thread_.join();
  ring_buffer__free(ring_);
}

int BareConsumer::OnSample(void* ctx, void* data, size_t size) {
  auto* self = static_cast<BareConsumer*>(ctx);
  if (size < sizeof(kavo_event_header)) return 0;
  kavo_event_header header;
  memcpy(&header, data, sizeof(header));
  self->tally_->add(header.type, header.time_ns, self->receiptNs_);
  return 0;
}

void BareConsumer::run() {
  tid_ = gettid();
  const int epollFd = ring_buffer__epoll_fd(ring_);
  while (!stop_) {
    struct epoll_event event;
    if (epoll_wait(epollFd, &event, 1, kWaitMs) <= 0) continue;
    receiptNs_ = BootNs();
    std::lock_guard<std::mutex> guard(tally_->mutex());
    ring_buffer__consume(ring_);
  }
}

// ---- ClientConsumer -------------------------------------------------------

ClientConsumer::ClientConsumer(Tally* tally) : tally_(tally), buffer_(kClientBuffer, 0) {}

ClientConsumer::~ClientConsumer() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
}

bool ClientConsumer::start(std::initializer_list<int> types) {
  if (!client_.Connect(kavo::test::kServiceSocket, std::chrono::seconds(10))) return false;
  uint32_t reqId = 1;
  for (int type : types) {
    if (!client_.Send(kavo::test::RequestFrame(reqId++, 51, type))) return false;
  }
  thread_ = std::thread(&ClientConsumer::run, this);
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (responses_.load() < static_cast<int>(types.size())) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

void ClientConsumer::run() {
  size_t have = 0;
  while (!stop_) {
    struct pollfd readable = {client_.fd(), POLLIN, 0};
    if (poll(&readable, 1, kWaitMs) <= 0) continue;
    ssize_t n = recv(client_.fd(), buffer_.data() + have, buffer_.size() - have, 0);
    const uint64_t receiptNs = BootNs();
    if (n == 0) return;  // the service went away
    if (n < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      return;
    }
    std::lock_guard<std::mutex> guard(tally_->mutex());
    have = parse(have + static_cast<size_t>(n), receiptNs);
  }
}

size_t ClientConsumer::parse(size_t have, uint64_t receiptNs) {
  const char* data = buffer_.data();
  size_t at = 0;
  while (have - at >= kFrameHeader) {
    uint32_t size, type;
    memcpy(&size, data + at, 4);
    memcpy(&type, data + at + 4, 4);
    if (have - at < 4 + static_cast<size_t>(size)) break;
    if (type == 1) responses_.fetch_add(1);
    if (type == 3 && size >= 8 + sizeof(kavo_event_header)) {
      kavo_event_header header;
      memcpy(&header, data + at + kFrameHeader, sizeof(header));
      tally_->add(header.type, header.time_ns, receiptNs);
    }
    at += 4 + static_cast<size_t>(size);
  }
  memmove(buffer_.data(), data + at, have - at);
  return have - at;
}

}  // namespace kavo::bench
