// ring_consume: how fast records leave a ring buffer, through the service's
// monitor (ring_buffer__poll calling handleBpfRingBuffEvent, which counts,
// forwards and runs the handlers) and through a bare libbpf consumer that
// only counts them.
//
// Both consumers get the same kernel-made load: the real programs, pinned by
// kavobpf_loader and attached, see a burst of forked children (fork, exit and
// RSS records) while nobody consumes; then the producers are switched off and
// the consumer drains the backlog against the clock. The monitor is timed
// from the moment the ring's consumer position first moves until it passes
// the backlog's end, so its start-up (opening maps, the /proc scan) is not
// counted.
//
// Runs as root in private mount and network namespaces of its own (a fresh
// bpffs for the pins). Usage: ring_consume [--forks N]

#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <errno.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "bpf/kavo_bpf_records.h"
#include "service/kavo_bpf_service.h"

namespace {

using namespace kavo::bench;
using Kavo::Bpf::KavoBpfService;
using Clock = std::chrono::steady_clock;

constexpr char kRingSize[] = "67108864";
constexpr uint64_t kProducersOn = KAVO_RING_CORE_ENABLED_BIT | KAVO_RING_NORMAL_ENABLED_BIT;

// Forks |count| children that exit at once, with the producers on, then
// switches them off again so the backlog stays as it is. Returns forks/s.
double MakeBacklog(int count) {
  SetControlWord(0, kProducersOn);
  auto start = Clock::now();
  for (int i = 0; i < count; ++i) {
    pid_t child = fork();
    if (child == 0) _exit(0);
    if (child > 0) waitpid(child, nullptr, 0);
  }
  double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  SetControlWord(0, 0);
  if (ControlWord(0) & KAVO_RING_FULL_BIT) Die("ring_consume: the ring ran full; use fewer --forks");
  return count / seconds;
}

// Read-only view of the ring's positions and data, as a consumer sees them.
class RingView {
 public:
  RingView() {
    fd_.reset(bpf_obj_get(KavoBpfService::RINGBUF_MAP_PATH[0].c_str()));
    page_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    size_ = strtoull(kRingSize, nullptr, 10);
    consumer_ = mmap(nullptr, page_, PROT_READ, MAP_SHARED, fd_.get(), 0);
    producer_ = mmap(nullptr, page_ + 2 * size_, PROT_READ, MAP_SHARED, fd_.get(), page_);
    if (consumer_ == MAP_FAILED || producer_ == MAP_FAILED) Die("ring_consume: mapping the ring");
  }
  ~RingView() {
    munmap(consumer_, page_);
    munmap(producer_, page_ + 2 * size_);
  }
  uint64_t consumerPos() const {
    return __atomic_load_n(static_cast<uint64_t*>(consumer_), __ATOMIC_ACQUIRE);
  }
  uint64_t producerPos() const {
    return __atomic_load_n(static_cast<uint64_t*>(producer_), __ATOMIC_ACQUIRE);
  }
  // Records between two positions (each: u32 length with busy/discard bits,
  // u32 page offset, then the sample, padded to 8 bytes).
  uint64_t recordsBetween(uint64_t from, uint64_t to) const {
    const char* data = static_cast<const char*>(producer_) + page_;
    uint64_t records = 0;
    for (uint64_t pos = from; pos < to;) {
      uint32_t length;
      memcpy(&length, data + (pos & (size_ - 1)), sizeof(length));
      bool discarded = (length & BPF_RINGBUF_DISCARD_BIT) != 0;
      length &= ~(BPF_RINGBUF_BUSY_BIT | BPF_RINGBUF_DISCARD_BIT);
      if (!discarded) ++records;
      pos += (static_cast<uint64_t>(length) + BPF_RINGBUF_HDR_SZ + 7) / 8 * 8;
    }
    return records;
  }

 private:
  android::base::unique_fd fd_;
  size_t page_ = 0;
  uint64_t size_ = 0;
  void* consumer_ = MAP_FAILED;
  void* producer_ = MAP_FAILED;
};

struct Drain {
  uint64_t records = 0;
  double seconds = 0;
  double perSecond() const { return seconds > 0 ? records / seconds : 0; }
};

Drain DrainBare() {
  android::base::unique_fd ring(bpf_obj_get(KavoBpfService::RINGBUF_MAP_PATH[0].c_str()));
  Drain drain;
  auto count = [](void* ctx, void*, size_t) {
    ++static_cast<Drain*>(ctx)->records;
    return 0;
  };
  struct ring_buffer* consumer = ring_buffer__new(ring.get(), count, &drain, nullptr);
  if (consumer == nullptr) Die("ring_consume: ring_buffer__new");
  auto start = Clock::now();
  ring_buffer__consume(consumer);
  drain.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  ring_buffer__free(consumer);
  return drain;
}

Drain DrainThroughMonitor(KavoBpfService* service) {
  RingView view;
  uint64_t begin = view.consumerPos();
  uint64_t end = view.producerPos();
  Drain drain;
  drain.records = view.recordsBetween(begin, end);
  std::thread monitor([service] { service->eventMonitor(); });
  while (view.consumerPos() == begin) {
  }
  auto start = Clock::now();
  while (view.consumerPos() < end) {
  }
  drain.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  drain.records -= 1;  // taken before the clock started
  service->stop();
  monitor.join();
  return drain;
}

}  // namespace

int main(int argc, char** argv) {
  int forks = 10000;
  if (argc == 3 && strcmp(argv[1], "--forks") == 0) forks = atoi(argv[2]);
  if (forks <= 0 || (argc != 1 && argc != 3)) Die("ring_consume: usage: ring_consume [--forks N]");
  if (geteuid() != 0) Die("ring_consume: needs root (BPF programs and namespaces)");

  EnterPrivateNamespaces();
  RunLoader({"--ring-size", kRingSize});
  android::base::SetProperty("ro.kernel.version", KernelVersion());
  // Holds the service's own producer thread before it attaches or polls.
  android::base::SetProperty("sys.kavo_bpf_ready", "0");
  if (Kavo::Bpf::AttachAllKavoBpfProgram(KavoBpfService::BPF_PROG_DIR,
                                         KavoBpfService::PROG_EVENT_MAP) > 1) {
    Die("ring_consume: attaching the programs failed");
  }

  double bareForkRate = MakeBacklog(forks);
  Drain bare = DrainBare();

  Kavo::Bpf::BpfServiceMain();
  KavoBpfService* service = KavoBpfService::GetInstance();
  double monitorForkRate = MakeBacklog(forks);
  Drain monitor = DrainThroughMonitor(service);
  service->Wait();

  double ratio = bare.perSecond() > 0 ? monitor.perSecond() / bare.perSecond() : 0;
  printf("%-28s %12s %10s %16s %12s\n", "consumer", "records", "seconds", "records/s", "forks/s");
  printf("%-28s %12llu %10.4f %16.0f %12.0f\n", "bare libbpf (count only)",
         static_cast<unsigned long long>(bare.records), bare.seconds, bare.perSecond(),
         bareForkRate);
  printf("%-28s %12llu %10.4f %16.0f %12.0f\n", "service monitor (dispatch)",
         static_cast<unsigned long long>(monitor.records), monitor.seconds, monitor.perSecond(),
         monitorForkRate);
  printf("monitor / bare: %.3f\n", ratio);
  printf(
      "{\"forks\": %d, \"bare_records\": %llu, \"bare_records_per_s\": %.0f, \"monitor_records\": %llu, "
      "\"monitor_records_per_s\": %.0f, \"monitor_to_bare_ratio\": %.4f}\n",
      forks, static_cast<unsigned long long>(bare.records), bare.perSecond(),
      static_cast<unsigned long long>(monitor.records), monitor.perSecond(), ratio);
  fflush(stdout);
  _exit(0);
}
