// e2e_events: the road of one raw event, end to end, on the real kernel.
//
// The loader pins the real programs; kavobpfd attaches them and serves a
// client that subscribes to types 1, 2 and 3, while a workload (kavo_workload
// processes) makes the kernel write a steady stream of records:
//
//   faults@R   a process that faults in and releases anonymous pages, paced
//              to about R type-1 records per second (one per page touched,
//              one per release)
//   faults     the same, as fast as it goes; "faults x2": two such processes
//   forks      a fork loop (types 2 and 3, and the children's type-1 records)
//
// Per workload it prints the records the programs emitted of the subscribed
// types (the sets' ring_stats counters: written, or lost to a full ring),
// those the client got, those lost (to a full ring, to queue trims, or
// otherwise), the delivered rate, the latency from a record's boot-time
// stamp to the client holding it, and the service's CPU time and wake-ups
// per record it took from its rings. The workloads marked in kBareRuns also
// run, before the service starts, against a bare libbpf consumer of the same
// ring, and the delivered rates of the two are compared where the bare
// consumer delivered the most.
//
// The programs see the whole machine: records of other processes count too.
// Their rate, measured with no workload, is printed as "from the rest of the
// machine"; figures are only clean when it is small.
//
// Runs as root in private mount and network namespaces (a fresh bpffs).
// Usage: e2e_events [--seconds S] [--only WORKLOAD]
//   S: seconds each workload runs (default 3); --only runs one workload, by
//   its name in the table (for profiling the service under one load).

#include <android-base/properties.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "bpf/kavo_bpf_records.h"
#include "event_consumers.h"
#include "service/kavo_bpf_service.h"
#include "support/kernel.h"
#include "support/kernel_stand_ins.h"
#include "support/system.h"

namespace {

using namespace kavo::bench;
using Kavo::Bpf::KavoBpfService;
using Clock = std::chrono::steady_clock;

const std::initializer_list<int> kSubscribed = {KAVO_EVENT_RSS_STAT, KAVO_EVENT_TASK_CREATE,
                                                KAVO_EVENT_TASK_EXIT};
constexpr uint64_t kProducersOn = KAVO_RING_CORE_ENABLED_BIT | KAVO_RING_NORMAL_ENABLED_BIT;
// A window is drained once no record came for this long.
constexpr auto kQuietForDrain = std::chrono::milliseconds(300);
constexpr auto kLongestDrain = std::chrono::seconds(5);

struct Workload {
  const char* name;
  bool forks;
  double rate;    // records per second; 0 = as fast as it goes
  int processes;  // running side by side
};

const Workload kServiceRuns[] = {
    {"faults@10k", false, 10000, 1},   {"faults@50k", false, 50000, 1}, {"faults@100k", false, 100000, 1},
    {"faults@200k", false, 200000, 1}, {"faults", false, 0, 1},         {"faults x2", false, 0, 2},
    {"forks", true, 0, 1},
};
const Workload kBareRuns[] = {
    {"faults@10k", false, 10000, 1}, {"faults", false, 0, 1}, {"faults x2", false, 0, 2}, {"forks", true, 0, 1}};

// --only: one workload alone (to profile it), or all of them.
const char* gOnly = nullptr;
bool Selected(const Workload& workload) { return gOnly == nullptr || strcmp(gOnly, workload.name) == 0; }

// What a consumer spent: CPU time, and wake-ups (voluntary context switches).
struct Usage {
  uint64_t cpuNs;
  uint64_t wakeups;
};

// Plain data, so the bare runs can come back through a pipe.
struct Result {
  char workload[16];
  char consumer[8];
  double seconds;
  uint64_t written;      // subscribed types, into the ring, in the window
  uint64_t ringLost;     // subscribed types, not written: the ring was full
  uint64_t delivered;    // in the consumer's hands, of those written
  uint64_t trimmed;      // packages dropped by queue trims (service)
  uint64_t fullReports;  // "bpf ringbuff full!" reports (service)
  uint64_t sendDrops;    // send buffers dropped after 11 refused sends (service)
  uint64_t allRecords;   // every record of both rings in the window
  uint64_t cpuNs;        // consumer CPU time over the window and its drain
  uint64_t wakeups;      // consumer wake-ups over the same time
  double p50Us, p99Us, maxUs;
  double backgroundPerSecond;  // subscribed records/s the rest of the machine made

  // What the programs made of the subscribed types: written or lost to a full ring.
  uint64_t emitted() const { return written + ringLost; }
  uint64_t lost() const { return emitted() > delivered ? emitted() - delivered : 0; }
  double perSecond() const { return seconds > 0 ? static_cast<double>(delivered) / seconds : 0; }
  double cpuMsPerMillion() const {
    return allRecords > 0 ? static_cast<double>(cpuNs) / 1e6 / (static_cast<double>(allRecords) / 1e6) : 0;
  }
  double wakeupsPerThousand() const {
    return allRecords > 0 ? static_cast<double>(wakeups) * 1000.0 / static_cast<double>(allRecords) : 0;
  }
};

// Subscribed records per second that the programs write with no workload:
// what the rest of the machine adds to every window.
double BackgroundPerSecond() {
  constexpr auto kListen = std::chrono::milliseconds(500);
  RingCounters before = RingCounters::Read(0);
  std::this_thread::sleep_for(kListen);
  RingCounters delta = RingCounters::Read(0) - before;
  return static_cast<double>(delta.writtenOf(kSubscribed) + delta.lostOf(kSubscribed)) * 1000.0 /
         static_cast<double>(kListen.count());
}

// ---- Workloads: kavo_workload processes side by side ---------------------

void RunWorkload(const Workload& workload, double seconds) {
  const std::string tool = kavo::test::ToolPath("kavo_workload");
  const std::string duration = std::to_string(seconds);
  const std::string rate = std::to_string(workload.rate);
  std::vector<const char*> argv = {tool.c_str()};
  if (workload.forks) {
    argv.insert(argv.end(), {"forks-for", duration.c_str()});
  } else {
    // 1 MiB regions: 256 pages (records) per mapping, one more per release.
    argv.insert(argv.end(), {"faults", duration.c_str(), "1", rate.c_str()});
  }
  argv.push_back(nullptr);
  std::vector<pid_t> pids;
  for (int i = 0; i < workload.processes; ++i) {
    pid_t pid = fork();
    if (pid < 0) Die("e2e_events: fork");
    if (pid == 0) {
      execv(argv[0], const_cast<char* const*>(argv.data()));
      _exit(127);
    }
    pids.push_back(pid);
  }
  for (pid_t pid : pids) {
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) Die("e2e_events: kavo_workload failed");
  }
}

// ---- One measured window ---------------------------------------------------

// Service log lines seen since the last call, for the loss figures.
class LogReader {
 public:
  explicit LogReader(const kavo::test::ChildProcess* daemon) : daemon_(daemon) {}
  // Adds what the new lines report: packages dropped by queue trims, ring
  // full reports and dropped send buffers.
  void take(Result* result) {
    std::string all = daemon_->Output();
    std::string fresh = all.substr(std::min(seen_, all.size()));
    seen_ = all.size();
    const std::string trim = "ipc Package Queue too big: ";
    for (size_t at = fresh.find(trim); at != std::string::npos; at = fresh.find(trim, at + 1)) {
      unsigned long long queued = strtoull(fresh.c_str() + at + trim.size(), nullptr, 10);
      result->trimmed += queued > 5000 ? queued - 5000 : 0;
    }
    result->fullReports += Count(fresh, "bpf ringbuff full!");
    result->sendDrops += Count(fresh, "Send data 10 times failed!");
  }

 private:
  static uint64_t Count(const std::string& text, const std::string& line) {
    uint64_t count = 0;
    for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1)) ++count;
    return count;
  }

  const kavo::test::ChildProcess* daemon_;
  size_t seen_ = 0;
};

template <typename UsageNow>
Result Measure(const Workload& workload, const char* consumer, double seconds, Tally* tally,
               UsageNow usage, LogReader* logs) {
  Result result = {};
  snprintf(result.workload, sizeof(result.workload), "%s", workload.name);
  snprintf(result.consumer, sizeof(result.consumer), "%s", consumer);
  if (logs != nullptr) logs->take(&result);  // skip older lines
  result.trimmed = result.fullReports = result.sendDrops = 0;

  const Usage before = usage();
  const uint64_t start = BootNs();
  tally->open(start);
  RingCounters written[2] = {RingCounters::Read(0), RingCounters::Read(1)};
  RunWorkload(workload, seconds);
  RingCounters ring0 = RingCounters::Read(0) - written[0];
  RingCounters ring1 = RingCounters::Read(1) - written[1];
  const uint64_t end = BootNs();
  tally->close(end);

  // Drained once nothing more of the window arrives for a while.
  const auto giveUp = Clock::now() + kLongestDrain;
  uint64_t count = tally->delivered();
  auto lastChange = Clock::now();
  while (Clock::now() - lastChange < kQuietForDrain && Clock::now() < giveUp) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    if (tally->delivered() != count) {
      count = tally->delivered();
      lastChange = Clock::now();
    }
  }
  const Usage after = usage();
  result.cpuNs = after.cpuNs - before.cpuNs;
  result.wakeups = after.wakeups - before.wakeups;
  result.seconds = static_cast<double>(end - start) / 1e9;
  result.written = ring0.writtenOf(kSubscribed);
  result.ringLost = ring0.lostOf(kSubscribed);
  result.allRecords = ring0.allWritten() + ring1.allWritten();
  result.delivered = tally->delivered();
  result.p50Us = tally->percentileUs(0.50);
  result.p99Us = tally->percentileUs(0.99);
  result.maxUs = tally->maxUs();
  if (logs != nullptr) logs->take(&result);
  return result;
}

// The bare runs, in a child that attaches the programs itself: they come off
// again when it exits, before the service attaches its own.
std::vector<Result> RunBare(double seconds) {
  int fds[2];
  if (pipe(fds) != 0) Die("e2e_events: pipe");
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    (void)!freopen("/dev/null", "w", stderr);  // kprobe attach failures are expected here
    android::base::SetProperty("ro.kernel.version", kavo::test::RunningKernelVersion());
    Kavo::Bpf::AttachAllKavoBpfProgram(KavoBpfService::BPF_PROG_DIR, KavoBpfService::PROG_EVENT_MAP);
    SetControlWord(0, kProducersOn);
    Tally tally(kSubscribed);
    BareConsumer bare(&tally);
    const double background = BackgroundPerSecond();
    for (const Workload& workload : kBareRuns) {
      if (!Selected(workload)) continue;
      const std::string status = "/proc/self/task/" + std::to_string(bare.tid()) + "/status";
      Result result = Measure(workload, "bare", seconds, &tally, [&] {
        return Usage{ThreadCpuNs(bare.tid()), StatusField(status, "voluntary_ctxt_switches:")};
      }, nullptr);
      result.backgroundPerSecond = background;
      if (write(fds[1], &result, sizeof(result)) != static_cast<ssize_t>(sizeof(result))) _exit(1);
    }
    SetControlWord(0, 0);
    _exit(0);
  }
  close(fds[1]);
  std::vector<Result> results;
  Result result;
  while (read(fds[0], &result, sizeof(result)) == static_cast<ssize_t>(sizeof(result))) results.push_back(result);
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) Die("e2e_events: the bare runs failed");
  return results;
}

std::vector<Result> RunService(double seconds) {
  kavo::test::KavoSystem system;
  std::string why;
  if (!system.StartDaemon(&why)) Die("e2e_events: " + why);
  kavo::test::ChildProcess& daemon = *system.daemon();
  Tally tally(kSubscribed);
  ClientConsumer client(&tally);
  if (!client.start(kSubscribed)) Die("e2e_events: kavobpfd did not answer the subscriptions\n" + daemon.Output());
  // Ready once the initial scan is done and the normal producers are on.
  const auto deadline = Clock::now() + std::chrono::seconds(20);
  while ((ControlWord(0) & kProducersOn) != kProducersOn) {
    if (Clock::now() > deadline) Die("e2e_events: kavobpfd never switched its producers on");
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(200));

  LogReader logs(&daemon);
  const pid_t service = daemon.pid();
  const double background = BackgroundPerSecond();
  std::vector<Result> results;
  for (const Workload& workload : kServiceRuns) {
    if (!Selected(workload)) continue;
    results.push_back(Measure(workload, "service", seconds, &tally, [service] {
      return Usage{ProcessCpuNs(service), TotalWakeups(service)};
    }, &logs));
    results.back().backgroundPerSecond = background;
  }
  daemon.Signal(SIGTERM);
  int status = 0;
  daemon.WaitExit(std::chrono::seconds(5), &status);
  return results;
}

const Result* Find(const std::vector<Result>& results, const char* workload) {
  for (const Result& result : results) {
    if (strcmp(result.workload, workload) == 0) return &result;
  }
  return nullptr;
}

void PrintJsonResult(const Result& r, bool last) {
  printf("{\"workload\":\"%s\",\"consumer\":\"%s\",\"seconds\":%.3f,\"emitted\":%llu,\"delivered\":%llu,"
         "\"lost\":%llu,\"ring_lost\":%llu,\"trimmed\":%llu,\"full_reports\":%llu,\"send_drops\":%llu,"
         "\"delivered_per_s\":%.0f,"
         "\"p50_us\":%.0f,\"p99_us\":%.0f,\"max_us\":%.0f,\"cpu_ms_per_million\":%.1f,"
         "\"wakeups_per_thousand\":%.1f,\"background_per_s\":%.0f}%s",
         r.workload, r.consumer, r.seconds, static_cast<unsigned long long>(r.emitted()),
         static_cast<unsigned long long>(r.delivered), static_cast<unsigned long long>(r.lost()),
         static_cast<unsigned long long>(r.ringLost), static_cast<unsigned long long>(r.trimmed),
         static_cast<unsigned long long>(r.fullReports), static_cast<unsigned long long>(r.sendDrops),
         r.perSecond(), r.p50Us, r.p99Us, r.maxUs,
         r.cpuMsPerMillion(), r.wakeupsPerThousand(), r.backgroundPerSecond, last ? "" : ",");
}

}  // namespace

int main(int argc, char** argv) {
  double seconds = 3;
  for (int i = 1; i < argc; i += 2) {
    if (i + 1 < argc && strcmp(argv[i], "--seconds") == 0) {
      seconds = atof(argv[i + 1]);
    } else if (i + 1 < argc && strcmp(argv[i], "--only") == 0) {
      gOnly = argv[i + 1];
    } else {
      Die("usage: e2e_events [--seconds S] [--only WORKLOAD]");
    }
  }
  if (!(seconds > 0)) Die("usage: e2e_events [--seconds S] [--only WORKLOAD]");
  if (geteuid() != 0) Die("e2e_events: needs root (BPF programs and namespaces)");
  setvbuf(stdout, nullptr, _IOLBF, 0);

  EnterNamespacesAndLoad();
  const double loadBefore = LoadAverage();
  std::vector<Result> bare = RunBare(seconds);
  std::vector<Result> service = RunService(seconds);
  const double loadAfter = LoadAverage();

  printf("kernel %s, %ld CPUs, %.1f s per workload, client subscribed to types 1, 2, 3, "
         "load average %.2f before, %.2f after\n",
         kavo::test::RunningKernelVersion().c_str(), sysconf(_SC_NPROCESSORS_ONLN), seconds, loadBefore, loadAfter);
  // lost = emitted - delivered; of those, ringfull never reached the ring,
  // trimmed were dropped from a client queue; senddrop counts send buffers
  // dropped whole after the socket stayed full.
  printf("%-12s %-8s %10s %10s %8s %8s %8s %8s %12s %7s %7s %7s %9s %8s\n", "workload", "consumer", "emitted",
         "delivered", "lost", "ringfull", "trimmed", "senddrop", "delivered/s", "p50us", "p99us", "maxus",
         "cpu ms/M", "wake/1k");
  std::vector<Result> all = bare;
  all.insert(all.end(), service.begin(), service.end());
  for (const Result& r : all) {
    printf("%-12s %-8s %10llu %10llu %8llu %8llu %8llu %8llu %12.0f %7.0f %7.0f %7.0f %9.1f %8.1f\n",
           r.workload, r.consumer, static_cast<unsigned long long>(r.emitted()),
           static_cast<unsigned long long>(r.delivered), static_cast<unsigned long long>(r.lost()),
           static_cast<unsigned long long>(r.ringLost), static_cast<unsigned long long>(r.trimmed),
           static_cast<unsigned long long>(r.sendDrops), r.perSecond(), r.p50Us, r.p99Us, r.maxUs,
           r.cpuMsPerMillion(), r.wakeupsPerThousand());
  }
  printf("records/s of the subscribed types from the rest of the machine: %.0f (bare), %.0f (service)\n",
         bare.empty() ? 0 : bare.front().backgroundPerSecond, service.empty() ? 0 : service.front().backgroundPerSecond);
  // The ratio is taken where the bare consumer delivered the most.
  const Result* best = nullptr;
  for (const Result& r : bare) {
    if (best == nullptr || r.perSecond() > best->perSecond()) best = &r;
  }
  const Result* match = best != nullptr ? Find(service, best->workload) : nullptr;
  double ratio = match != nullptr && best->perSecond() > 0 ? match->perSecond() / best->perSecond() : 0;
  printf("delivered rate service / bare at the bare consumer's highest rate (%s): %.3f\n",
         best != nullptr ? best->workload : "-", ratio);

  printf("{\"benchmark\":\"e2e_events\",\"kernel\":\"%s\",\"cpus\":%ld,\"seconds_per_workload\":%.1f,"
         "\"load_before\":%.2f,\"load_after\":%.2f,\"ratio_workload\":\"%s\",\"service_to_bare_ratio\":%.3f,"
         "\"runs\":[",
         kavo::test::RunningKernelVersion().c_str(), sysconf(_SC_NPROCESSORS_ONLN), seconds, loadBefore, loadAfter,
         best != nullptr ? best->workload : "", ratio);
  for (size_t i = 0; i < all.size(); ++i) PrintJsonResult(all[i], i + 1 == all.size());
  printf("]}\n");
  fflush(stdout);
  _exit(0);
}
