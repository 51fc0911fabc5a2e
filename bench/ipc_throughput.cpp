// Throughput of the service's send path, end to end: producer threads build
// raw-event packages into per-client IpcPackageManager queues and ask the
// endpoint for write interest; the endpoint's loop runs the write callback,
// which packs whole packages into the send buffer and sends it over a real
// Unix-domain socket to reading clients, which count the frames they get.
//
// For each event size (32, 128, 1024 bytes) and client count (1, 4, 16) the
// producers run for a fixed time, then the queues are drained; the figures
// are packages and bytes received per second over the whole run. Producers
// hold back while a queue is deep, so the queue bound never drops packages.
//
// Prints a table, then one line with a JSON object of the figures.

#include <android/log.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "utils/kavo_bpf_ipc_helper.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kBufferSize = 32768;  // the service's endpoint buffer
constexpr int kProducers = 2;       // the service has two ring monitors
constexpr size_t kQueueDepthLimit = 2000;
constexpr auto kProduceTime = std::chrono::milliseconds(1500);

// The server end: one queue per client, filled by the producers and drained
// by the write handler the way the service drains its client queues.
class Server {
 public:
  explicit Server(const std::string& name) {
    IpcHandlerState handlers;
    handlers.compactReadBuffer = true;
    handlers.closeOnError = true;
    handlers.writeHandler = [this](int fd, BufferState* buffer) {
      IpcPackageManager* queue = find(fd);
      if (queue != nullptr) {
        while (queue->fillNextIpcPackageToBuffer(buffer)) {
        }
      }
      return 0;
    };
    handlers.connectionHandler = [this](int fd) {
      std::lock_guard<std::mutex> guard(mutex_);
      queues_.try_emplace(fd);
      fds_.push_back(fd);
      return 0;
    };
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    for (int cpu = 0; cpu <= 2; ++cpu) CPU_SET(cpu, &cpus);
    endpoint_ = std::make_unique<UnixIpcManager>(true, kBufferSize, name, handlers, "BpfServiceTr",
                                                 cpus, 10, 32);
  }

  UnixIpcManager& endpoint() { return *endpoint_; }
  std::vector<int> fds() {
    std::lock_guard<std::mutex> guard(mutex_);
    return fds_;
  }
  IpcPackageManager* find(int fd) {
    std::lock_guard<std::mutex> guard(mutex_);
    auto it = queues_.find(fd);
    return it == queues_.end() ? nullptr : &it->second;
  }

 private:
  std::mutex mutex_;
  std::map<int, IpcPackageManager> queues_;
  std::vector<int> fds_;
  std::unique_ptr<UnixIpcManager> endpoint_;
};

// A client that reads its socket and counts whole frames.
class Reader {
 public:
  explicit Reader(const std::string& name) : fd_(ConnectToServer(name.c_str())) {
    thread_ = std::thread([this] { run(); });
  }
  ~Reader() {
    stop_ = true;
    thread_.join();
    if (fd_ >= 0) close(fd_);
  }
  bool connected() const { return fd_ >= 0; }
  uint64_t frames() const { return frames_.load(std::memory_order_relaxed); }
  uint64_t bytes() const { return bytes_.load(std::memory_order_relaxed); }

 private:
  void run() {
    std::vector<char> chunk(1 << 16);
    char header[4];
    size_t headerHave = 0;
    uint64_t bodyLeft = 0;
    while (!stop_ && fd_ >= 0) {
      struct pollfd pfd = {fd_, POLLIN, 0};
      if (poll(&pfd, 1, 20) <= 0) continue;
      ssize_t n = recv(fd_, chunk.data(), chunk.size(), 0);
      if (n <= 0) continue;
      bytes_.fetch_add(static_cast<uint64_t>(n), std::memory_order_relaxed);
      // Walk frame boundaries across chunk edges.
      for (size_t at = 0; at < static_cast<size_t>(n);) {
        if (bodyLeft > 0) {
          size_t take = std::min<uint64_t>(bodyLeft, static_cast<size_t>(n) - at);
          bodyLeft -= take;
          at += take;
          if (bodyLeft == 0) frames_.fetch_add(1, std::memory_order_relaxed);
          continue;
        }
        header[headerHave++] = chunk[at++];
        if (headerHave == 4) {
          uint32_t size;
          memcpy(&size, header, 4);
          headerHave = 0;
          bodyLeft = size;
          if (bodyLeft == 0) frames_.fetch_add(1, std::memory_order_relaxed);
        }
      }
    }
  }

  int fd_;
  std::atomic<bool> stop_{false};
  std::atomic<uint64_t> frames_{0};
  std::atomic<uint64_t> bytes_{0};
  std::thread thread_;
};

struct Result {
  size_t eventBytes;
  int clients;
  uint64_t packages;
  double seconds;
  double packagesPerSecond;
  double megabytesPerSecond;
};

bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  auto deadline = Clock::now() + timeout;
  while (!condition()) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

bool RunOne(size_t eventBytes, int clients, int run, Result* result) {
  const std::string name = "kavo_ipc_bench." + std::to_string(getpid()) + "." + std::to_string(run);
  Server server(name);
  server.endpoint().start();
  if (!WaitUntil([&] { return server.endpoint().socketFd() != -1; }, std::chrono::seconds(5))) {
    return false;
  }
  std::vector<std::unique_ptr<Reader>> readers;
  for (int i = 0; i < clients; ++i) {
    readers.push_back(std::make_unique<Reader>(name));
    if (!readers.back()->connected()) return false;
  }
  if (!WaitUntil([&] { return server.fds().size() == static_cast<size_t>(clients); },
                 std::chrono::seconds(5))) {
    return false;
  }
  const std::vector<int> fds = server.fds();

  std::atomic<bool> producing{true};
  std::atomic<uint64_t> produced{0};
  const auto start = Clock::now();
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      std::vector<char> event(eventBytes, static_cast<char>(p));
      uint64_t count = 0;
      while (producing.load(std::memory_order_relaxed)) {
        for (int fd : fds) {
          IpcPackageManager* queue = server.find(fd);
          if (queue->getIpcPackageCount() > kQueueDepthLimit) {
            std::this_thread::yield();
            continue;
          }
          queue->buildAndAppendSecondIpcPackage(KAVO_IPC_RAW_EVENT, event.data(),
                                                static_cast<unsigned>(eventBytes));
          server.endpoint().notifyNeedWriteData(fd);
          ++count;
        }
      }
      produced.fetch_add(count);
    });
  }
  std::this_thread::sleep_for(kProduceTime);
  producing = false;
  for (std::thread& producer : producers) producer.join();

  auto received = [&] {
    uint64_t frames = 0;
    for (const auto& reader : readers) frames += reader->frames();
    return frames;
  };
  bool drained = WaitUntil([&] { return received() >= produced.load(); }, std::chrono::seconds(10));
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  uint64_t bytes = 0;
  for (const auto& reader : readers) bytes += reader->bytes();

  result->eventBytes = eventBytes;
  result->clients = clients;
  result->packages = received();
  result->seconds = seconds;
  result->packagesPerSecond = static_cast<double>(result->packages) / seconds;
  result->megabytesPerSecond = static_cast<double>(bytes) / seconds / 1e6;
  server.endpoint().stop();
  return drained;
}

}  // namespace

int main() {
  // Full-socket warnings are part of the run, not of the report.
  __android_log_set_minimum_priority(ANDROID_LOG_ERROR);

  std::vector<Result> results;
  printf("%-12s %-8s %12s %10s %14s %10s\n", "event bytes", "clients", "packages", "seconds",
         "packages/s", "MB/s");
  int run = 0;
  for (size_t eventBytes : {32, 128, 1024}) {
    for (int clients : {1, 4, 16}) {
      Result result = {};
      if (!RunOne(eventBytes, clients, run++, &result)) {
        fprintf(stderr, "ipc_throughput: run with %zu-byte events and %d clients did not complete\n",
                eventBytes, clients);
        return 1;
      }
      printf("%-12zu %-8d %12llu %10.2f %14.0f %10.2f\n", result.eventBytes, result.clients,
             static_cast<unsigned long long>(result.packages), result.seconds,
             result.packagesPerSecond, result.megabytesPerSecond);
      fflush(stdout);
      results.push_back(result);
    }
  }

  // MB/s counts the bytes on the wire: frame size, second-level header, event.
  std::string json = "{\"benchmark\":\"ipc_throughput\",\"producers\":" + std::to_string(kProducers) +
                     ",\"results\":[";
  for (size_t i = 0; i < results.size(); ++i) {
    char entry[256];
    snprintf(entry, sizeof(entry),
             "%s{\"event_bytes\":%zu,\"clients\":%d,\"packages\":%llu,\"packages_per_s\":%.0f,"
             "\"mb_per_s\":%.2f}",
             i == 0 ? "" : ",", results[i].eventBytes, results[i].clients,
             static_cast<unsigned long long>(results[i].packages), results[i].packagesPerSecond,
             results[i].megabytesPerSecond);
    json += entry;
  }
  json += "]}";
  printf("%s\n", json.c_str());
  return 0;
}
