// ring_consume: how fast records leave a ring buffer, through the service's
// monitor (ring_buffer__poll calling handleBpfRingBuffEvent, which counts,
// forwards and runs the handlers) with no client, through the same monitor
// while one client that subscribed to every type reads everything it is
// sent, and through a bare libbpf consumer that only counts them.
//
// All three get the same kernel-made load: the real programs, pinned by
// kavobpf_loader and attached, see a burst of forked children (fork, exit and
// RSS records) while nobody consumes; then the producers are switched off and
// the consumer drains the backlog against the clock. Each round drains one
// backlog each way, one after the other, the bare consumer first and the two
// service drains taking turns after it. The monitor runs in a child process
// of its own each time (a fresh service), and is timed from the moment the
// ring's consumer position first moves until it passes the backlog's end, so
// its start-up (opening maps, the /proc scan, the client's subscriptions) is
// not counted. "client got" is the share of the backlog's records that
// reached the client (queue trims drop the rest). Beside each round: the
// CPU time of the process's other threads (IPC thread, client) per record,
// and the CPUs' speed and a cache line's round trip between them, measured
// outside the clock before and after each drain (bench_support.h).
//
// Runs as root in private mount and network namespaces of its own (a fresh
// bpffs for the pins). Usage: ring_consume [--forks N] [--rounds N]

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

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "support/kernel.h"
#include "event_consumers.h"
#include "bpf/kavo_bpf_records.h"
#include "service/kavo_bpf_service.h"

namespace {

using namespace kavo::bench;
using Kavo::Bpf::KavoBpfService;
using Clock = std::chrono::steady_clock;

constexpr char kRingSize[] = "67108864";
constexpr uint64_t kProducersOn = KAVO_RING_CORE_ENABLED_BIT | KAVO_RING_NORMAL_ENABLED_BIT;
constexpr auto kPositionPoll = std::chrono::microseconds(200);
// A copy probe this much slower on both vCPUs at once than alone: they
// contended for one core (or the host's bandwidth) around a drain.
constexpr double kContended = 1.3;
// What a fork storm's backlog holds, and what the client subscribes to.
const std::initializer_list<int> kBacklogTypes = {KAVO_EVENT_RSS_STAT, KAVO_EVENT_TASK_CREATE,
                                                  KAVO_EVENT_TASK_EXIT};
const std::initializer_list<int> kEveryType = {
    KAVO_EVENT_TASK_INIT,        KAVO_EVENT_RSS_STAT,        KAVO_EVENT_TASK_CREATE,
    KAVO_EVENT_TASK_EXIT,        KAVO_EVENT_DMABUF_SIZE,     KAVO_EVENT_CGROUP_ATTACH,
    KAVO_EVENT_FD_UPDATE,        KAVO_EVENT_DMABUF_UPDATE,   KAVO_EVENT_PROCESS_CREATED,
    KAVO_EVENT_PROCESS_EXITED,   KAVO_EVENT_THREAD_COUNT_CHANGED, KAVO_EVENT_MEMORY_CHANGED};

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
  uint64_t delivered = 0;  // of the backlog's types, to the client (when there is one)
  // The monitor thread while the clock ran: on a CPU, and runnable but
  // waiting for one (another thread had it).
  uint64_t monitorRunNs = 0;
  uint64_t monitorWaitNs = 0;
  // Every other thread of the process on a CPU meanwhile: the IPC thread, the
  // client, and this benchmark's look at the ring's positions.
  uint64_t othersRunNs = 0;
  // The CPUs just before the monitor started and once the drain was over.
  CpuSpeed before;
  CpuSpeed after;
  double perSecond() const { return seconds > 0 ? static_cast<double>(records) / seconds : 0; }
  double runNsPerRecord() const { return records > 0 ? static_cast<double>(monitorRunNs) / static_cast<double>(records) : 0; }
  double othersNsPerRecord() const { return records > 0 ? static_cast<double>(othersRunNs) / static_cast<double>(records) : 0; }
  double waitedShare() const { return seconds > 0 ? static_cast<double>(monitorWaitNs) / 1e9 / seconds : 0; }
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

// Sleeps between looks at the ring's positions: a spinning timer would take
// a CPU from the monitor, the IPC thread or the client.
void Nap() { std::this_thread::sleep_for(kPositionPoll); }

// |afterDrain| runs once the backlog is through, before the service stops.
template <typename AfterDrain>
Drain DrainThroughMonitor(KavoBpfService* service, AfterDrain afterDrain) {
  RingView view;
  uint64_t begin = view.consumerPos();
  uint64_t end = view.producerPos();
  Drain drain;
  drain.records = view.recordsBetween(begin, end);
  drain.before = ProbeCpuSpeed();
  std::atomic<pid_t> monitorTid{0};
  std::thread monitor([service, &monitorTid] {
    monitorTid = gettid();
    service->eventMonitor();
  });
  while (view.consumerPos() == begin) Nap();
  const uint64_t first = view.consumerPos();
  auto start = Clock::now();
  const Schedstat before = ThreadSchedstat(monitorTid);
  const uint64_t processBefore = ProcessCpuNs(getpid());
  while (view.consumerPos() < end) Nap();
  drain.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  const Schedstat after = ThreadSchedstat(monitorTid);
  const uint64_t processAfter = ProcessCpuNs(getpid());
  drain.monitorRunNs = after.runNs - before.runNs;
  drain.monitorWaitNs = after.waitNs - before.waitNs;
  const uint64_t processRunNs = processAfter - processBefore;
  drain.othersRunNs = processRunNs > drain.monitorRunNs ? processRunNs - drain.monitorRunNs : 0;
  drain.records -= view.recordsBetween(begin, first);  // taken before the clock started
  afterDrain(&drain);
  drain.after = ProbeCpuSpeed();
  service->stop();
  monitor.join();
  return drain;
}

// The service's monitor drains the backlog in a child process of its own (a
// fresh service each time), with or without a client that subscribed to every
// type and reads everything it is sent.
Drain DrainInChild(bool withClient) {
  int result[2];
  if (pipe(result) != 0) Die("ring_consume: pipe");
  pid_t pid = fork();
  if (pid == 0) {
    close(result[0]);
    (void)!freopen("/dev/null", "w", stderr);  // the service's log lines
    Kavo::Bpf::BpfServiceMain();
    KavoBpfService* service = KavoBpfService::GetInstance();
    Tally tally(kBacklogTypes);
    tally.open(0);
    std::unique_ptr<ClientConsumer> client;
    if (withClient) {
      client = std::make_unique<ClientConsumer>(&tally);
      if (!client->start(kEveryType)) _exit(2);
    }
    Drain drain = DrainThroughMonitor(service, [withClient, &tally](Drain* drained) {
      if (!withClient) return;
      // Everything the client will get, once nothing more comes for a while.
      uint64_t count = tally.delivered();
      auto lastChange = Clock::now();
      while (Clock::now() - lastChange < std::chrono::milliseconds(300)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        if (tally.delivered() != count) {
          count = tally.delivered();
          lastChange = Clock::now();
        }
      }
      drained->delivered = count;
    });
    if (write(result[1], &drain, sizeof(drain)) != static_cast<ssize_t>(sizeof(drain))) _exit(1);
    _exit(0);
  }
  close(result[1]);
  Drain drain;
  bool got = read(result[0], &drain, sizeof(drain)) == static_cast<ssize_t>(sizeof(drain));
  close(result[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (!got) Die("ring_consume: the monitor's drain failed");
  return drain;
}

std::string Describe(const CpuSpeed& speed) {
  char text[96];
  snprintf(text, sizeof(text), "%.2f/%.2f/%.0f ns/x%.2f", speed.slowestStepNs(), speed.togetherStepNs,
           speed.lineRoundTripNs, speed.copyContention());
  return text;
}

double MedianOf(const std::vector<double>& values) {
  std::vector<double> copy = values;
  return Median(&copy);
}

}  // namespace

int main(int argc, char** argv) {
  int forks = 10000;
  int rounds = 5;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (strcmp(argv[i], "--forks") == 0) {
      forks = atoi(argv[i + 1]);
    } else if (strcmp(argv[i], "--rounds") == 0) {
      rounds = atoi(argv[i + 1]);
    } else {
      forks = 0;
    }
  }
  if (forks <= 0 || rounds <= 0 || argc % 2 != 1) Die("ring_consume: usage: ring_consume [--forks N] [--rounds N]");
  if (geteuid() != 0) Die("ring_consume: needs root (BPF programs and namespaces)");
  setvbuf(stdout, nullptr, _IOLBF, 0);

  EnterNamespacesAndLoad({"--ring-size", kRingSize});
  android::base::SetProperty("ro.kernel.version", kavo::test::RunningKernelVersion());
  // Holds the service's own producer thread before it attaches or polls; the
  // drains run its monitor themselves.
  android::base::SetProperty("sys.kavo_bpf_ready", "0");
  if (Kavo::Bpf::AttachAllKavoBpfProgram(KavoBpfService::BPF_PROG_DIR,
                                         KavoBpfService::PROG_EVENT_MAP) > 1) {
    Die("ring_consume: attaching the programs failed");
  }
  const double loadBefore = LoadAverage();

  printf("%-6s %12s %14s %14s %14s %10s %10s %12s %9s %9s %9s %9s\n", "round", "records", "bare/s", "monitor/s",
         "with client/s", "mon/bare", "client/mon", "client got", "ns/rec", "waited", "ns/rec c", "waited c");
  std::vector<double> bareRates, monitorRates, clientRates, monitorToBare, clientToMonitor, delivered;
  // The monitor's own CPU time per record and share of the drain spent
  // waiting for a CPU, without and with the client.
  std::vector<double> runNs, waited, runNsClient, waitedClient;
  // The rest of the process's CPU time per record with the client, and the
  // line round trips measured around both drains.
  std::vector<double> othersNsClient, roundTrips;
  // The rounds' ratios by whether the vCPUs slowed each other's copies
  // around the drain with the client (see CpuSpeed): without a client the
  // other vCPU has nothing to do, so its placement cannot slow that drain.
  std::vector<double> apartRatios, contendedRatios;
  uint64_t records = 0;
  for (int round = 1; round <= rounds; ++round) {
    MakeBacklog(forks);
    Drain bare = DrainBare();
    // The two drains take turns going first, so that whatever follows a
    // drain (the child's exit, the machine settling) falls on both alike.
    Drain monitor, withClient;
    for (bool clientTurn : {round % 2 == 0, round % 2 != 0}) {
      MakeBacklog(forks);
      (clientTurn ? withClient : monitor) = DrainInChild(clientTurn);
    }
    records = monitor.records;
    bareRates.push_back(bare.perSecond());
    monitorRates.push_back(monitor.perSecond());
    clientRates.push_back(withClient.perSecond());
    monitorToBare.push_back(bare.perSecond() > 0 ? monitor.perSecond() / bare.perSecond() : 0);
    clientToMonitor.push_back(monitor.perSecond() > 0 ? withClient.perSecond() / monitor.perSecond() : 0);
    // The client's share of the backlog it was sent (the records before the
    // clock started count too).
    delivered.push_back(withClient.records > 0
                            ? static_cast<double>(withClient.delivered) / static_cast<double>(withClient.records)
                            : 0);
    runNs.push_back(monitor.runNsPerRecord());
    waited.push_back(monitor.waitedShare());
    runNsClient.push_back(withClient.runNsPerRecord());
    waitedClient.push_back(withClient.waitedShare());
    othersNsClient.push_back(withClient.othersNsPerRecord());
    for (const Drain* drain : {&monitor, &withClient}) {
      roundTrips.push_back(drain->before.lineRoundTripNs);
      roundTrips.push_back(drain->after.lineRoundTripNs);
    }
    const double contention = std::max(withClient.before.copyContention(), withClient.after.copyContention());
    (contention < kContended ? apartRatios : contendedRatios).push_back(clientToMonitor.back());
    printf("%-6d %12llu %14.0f %14.0f %14.0f %10.3f %10.3f %12.3f %9.1f %9.3f %9.1f %9.3f\n", round,
           static_cast<unsigned long long>(monitor.records), bare.perSecond(), monitor.perSecond(),
           withClient.perSecond(), monitorToBare.back(), clientToMonitor.back(), delivered.back(), runNs.back(),
           waited.back(), runNsClient.back(), waitedClient.back());
    printf("       other threads %.1f ns a record without the client, %.1f with it; CPUs before -> after, one "
           "step alone / both at once / line round trip / copy both at once against alone: without client %s -> "
           "%s, with %s -> %s\n",
           monitor.othersNsPerRecord(), othersNsClient.back(), Describe(monitor.before).c_str(),
           Describe(monitor.after).c_str(), Describe(withClient.before).c_str(), Describe(withClient.after).c_str());
  }
  const double loadAfter = LoadAverage();
  printf("with client / without, by the copy probes around the drain with the client: below x%.1f %zu rounds, median "
         "%.3f; at or above %zu rounds, median %.3f\n",
         kContended, apartRatios.size(), MedianOf(apartRatios), contendedRatios.size(), MedianOf(contendedRatios));
  printf("medians over %d rounds: bare libbpf (count only) %.0f records/s; service monitor (dispatch, no client) "
         "%.0f; with one client reading every type %.0f; monitor / bare %.3f; with client / without %.3f; the "
         "client got %.3f of the backlog; the monitor's CPU time %.1f ns a record without the client, %.1f with it, "
         "and it waited for a CPU %.3f of the drain without, %.3f with; the other threads %.1f ns a record with "
         "the client; a cache line's round trip between the CPUs %.0f ns; load average %.2f before, %.2f after\n",
         rounds, MedianOf(bareRates), MedianOf(monitorRates), MedianOf(clientRates), MedianOf(monitorToBare),
         MedianOf(clientToMonitor), MedianOf(delivered), MedianOf(runNs), MedianOf(runNsClient), MedianOf(waited),
         MedianOf(waitedClient), MedianOf(othersNsClient), MedianOf(roundTrips), loadBefore, loadAfter);
  printf("{\"benchmark\":\"ring_consume\",\"forks\":%d,\"rounds\":%d,\"records\":%llu,"
         "\"bare_records_per_s\":%.0f,\"monitor_records_per_s\":%.0f,\"client_records_per_s\":%.0f,"
         "\"monitor_to_bare_ratio\":%.4f,\"client_to_monitor_ratio\":%.4f,\"client_delivered_share\":%.4f,"
         "\"monitor_cpu_ns_per_record\":%.1f,\"monitor_cpu_ns_per_record_with_client\":%.1f,"
         "\"monitor_waited_share\":%.3f,\"monitor_waited_share_with_client\":%.3f,"
         "\"other_threads_cpu_ns_per_record_with_client\":%.1f,\"line_round_trip_ns\":%.0f,"
         "\"rounds_cpus_apart\":%zu,\"client_to_monitor_ratio_cpus_apart\":%.4f,"
         "\"rounds_cpus_contended\":%zu,\"client_to_monitor_ratio_cpus_contended\":%.4f,"
         "\"load_before\":%.2f,\"load_after\":%.2f}\n",
         forks, rounds, static_cast<unsigned long long>(records), MedianOf(bareRates), MedianOf(monitorRates),
         MedianOf(clientRates), MedianOf(monitorToBare), MedianOf(clientToMonitor), MedianOf(delivered), MedianOf(runNs),
         MedianOf(runNsClient), MedianOf(waited), MedianOf(waitedClient), MedianOf(othersNsClient),
         MedianOf(roundTrips), apartRatios.size(), MedianOf(apartRatios), contendedRatios.size(),
         MedianOf(contendedRatios), loadBefore, loadAfter);
  fflush(stdout);
  _exit(0);
}
