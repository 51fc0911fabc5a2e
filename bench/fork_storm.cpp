// fork_storm: what watching a fork storm costs the storm.
//
// A storm process forks children that exit at once and reaps each before the
// next fork, as fast as it goes. Each round runs it in three states, one
// after the other:
//
//   alone     no program attached, no service
//   bare      the first set's programs attached and its producers on, with a
//             bare libbpf consumer of ring 0 (what the kernel side alone costs)
//   watched   kavobpfd running (it attaches both sets) with one client
//             subscribed to the process events: task init, fork and exit
//             records (0, 2, 3) and the derived events 50001 to 50003
//
// Per state it prints the fork rate; for "watched" also its ratio to "alone"
// of the same round, the service's CPU time and wake-ups per fork (every
// kavobpfd thread, over the storm and the drain after it), and the run time
// of the kernel-side programs per fork, from the kernel's BPF statistics
// (BPF_ENABLE_STATS, which kernel.bpf_stats_enabled also switches; on for the
// whole run, so every state pays its two clock reads per program run), and
// the irq_work and rescheduling interrupts per fork (/proc/interrupts): a
// ring that wakes its consumer raises an irq_work on the producer's CPU, and
// waking a thread on an idle CPU takes a rescheduling interrupt there; on a
// virtual machine each costs an exit to the hypervisor.
// The medians over the rounds follow, then one JSON line.
//
// The storm is this program again (--storm SECONDS): a small process whose
// forks copy little, the same in every state.
//
// Runs as root in private mount and network namespaces (a fresh bpffs).
// Usage: fork_storm [--rounds N] [--seconds S] [--no-bare]

#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <map>
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
#include "utils/kavo_bpf_file.h"

namespace {

using namespace kavo::bench;
using Kavo::Bpf::KavoBpfService;
using Clock = std::chrono::steady_clock;

constexpr uint64_t kProducersOn = KAVO_RING_CORE_ENABLED_BIT | KAVO_RING_NORMAL_ENABLED_BIT;
constexpr char kProgramDir[] = "/sys/fs/bpf/kavo";
constexpr auto kSettle = std::chrono::milliseconds(300);
constexpr auto kQuietForDrain = std::chrono::milliseconds(300);
constexpr auto kLongestDrain = std::chrono::seconds(5);
// The client's counted types (records); it also takes task-init records and
// the derived process events.
const std::initializer_list<int> kCounted = {KAVO_EVENT_TASK_CREATE, KAVO_EVENT_TASK_EXIT};
const std::initializer_list<int> kSubscribed = {
    KAVO_EVENT_TASK_INIT,      KAVO_EVENT_TASK_CREATE,    KAVO_EVENT_TASK_EXIT,
    KAVO_EVENT_PROCESS_CREATED, KAVO_EVENT_PROCESS_EXITED, KAVO_EVENT_THREAD_COUNT_CHANGED};

// ---- The storm ----------------------------------------------------------------

// The storm process: forks, reaps, repeats; prints "<forks> <seconds>".
int StormMain(double seconds) {
  const auto start = Clock::now();
  const auto end = start + std::chrono::duration<double>(seconds);
  unsigned long long forks = 0;
  while (Clock::now() < end) {
    pid_t child = fork();
    if (child == 0) _exit(0);
    if (child < 0) return 1;
    waitpid(child, nullptr, 0);
    ++forks;
  }
  printf("%llu %.6f\n", forks, std::chrono::duration<double>(Clock::now() - start).count());
  return 0;
}

struct Storm {
  uint64_t forks = 0;
  double seconds = 0;
  double rate() const { return seconds > 0 ? static_cast<double>(forks) / seconds : 0; }
};

Storm RunStorm(double seconds) {
  int out[2];
  if (pipe(out) != 0) Die("fork_storm: pipe");
  const std::string duration = std::to_string(seconds);
  pid_t pid = fork();
  if (pid == 0) {
    dup2(out[1], STDOUT_FILENO);
    close(out[0]);
    close(out[1]);
    execl("/proc/self/exe", "fork_storm", "--storm", duration.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  close(out[1]);
  char text[128] = {};
  size_t have = 0;
  ssize_t n;
  while (have + 1 < sizeof(text) && (n = read(out[0], text + have, sizeof(text) - 1 - have)) > 0) {
    have += static_cast<size_t>(n);
  }
  close(out[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  Storm storm;
  unsigned long long forks = 0;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || sscanf(text, "%llu %lf", &forks, &storm.seconds) != 2) {
    Die("fork_storm: the storm process failed");
  }
  storm.forks = forks;
  return storm;
}

// ---- The kernel's statistics of the pinned programs -----------------------------

struct ProgramStats {
  uint64_t runNs = 0;
  uint64_t runs = 0;
};

// Run time and run count of every pinned program, by pinned name.
std::map<std::string, ProgramStats> ReadProgramStats() {
  std::map<std::string, ProgramStats> stats;
  Kavo::Bpf::ForEachDirEntry(kProgramDir, [&stats](const char* name) {
    if (strncmp(name, "prog_", 5) != 0) return Kavo::Bpf::LineAction::kContinue;
    android::base::unique_fd fd(bpf_obj_get((std::string(kProgramDir) + "/" + name).c_str()));
    struct bpf_prog_info info = {};
    uint32_t length = sizeof(info);
    if (fd.get() >= 0 && bpf_obj_get_info_by_fd(fd.get(), &info, &length) == 0) {
      stats[name] = {info.run_time_ns, info.run_cnt};
    }
    return Kavo::Bpf::LineAction::kContinue;
  });
  return stats;
}

std::map<std::string, ProgramStats> StatsSince(const std::map<std::string, ProgramStats>& before) {
  std::map<std::string, ProgramStats> delta = ReadProgramStats();
  for (auto& [name, stats] : delta) {
    auto earlier = before.find(name);
    if (earlier == before.end()) continue;
    stats.runNs -= earlier->second.runNs;
    stats.runs -= earlier->second.runs;
  }
  return delta;
}

uint64_t TotalRunNs(const std::map<std::string, ProgramStats>& stats) {
  uint64_t ns = 0;
  for (const auto& entry : stats) ns += entry.second.runNs;
  return ns;
}

// ---- One state ----------------------------------------------------------------

struct Phase {
  Storm storm;
  uint64_t records = 0;       // both rings, written
  uint64_t programNs = 0;     // kernel-side programs' run time
  uint64_t serviceNs = 0;     // kavobpfd CPU (watched only)
  uint64_t wakeups = 0;       // kavobpfd wake-ups (watched only)
  uint64_t delivered = 0;     // fork and exit records the client got (watched only)
  uint64_t emitted = 0;       // fork and exit records the programs made (watched only)
  uint64_t irqWork = 0;       // irq_work interrupts, all CPUs
  uint64_t reschedules = 0;   // rescheduling interrupts, all CPUs
  std::map<std::string, ProgramStats> programs;

  double perFork(uint64_t value) const {
    return storm.forks > 0 ? static_cast<double>(value) / static_cast<double>(storm.forks) : 0;
  }
};

// The storm with whatever is attached now; |usage| gives the service's
// (CPU ns, wake-ups), or nothing; |drain| waits for the consumer to finish.
template <typename Usage, typename Drain>
Phase MeasureStorm(double seconds, Usage usage, Drain drain) {
  Phase phase;
  const auto programsBefore = ReadProgramStats();
  const uint64_t recordsBefore = RingCounters::Read(0).allWritten() + RingCounters::Read(1).allWritten();
  const auto before = usage();
  const uint64_t irqWorkBefore = InterruptCount("IWI");
  const uint64_t reschedulesBefore = InterruptCount("RES");
  phase.storm = RunStorm(seconds);
  phase.irqWork = InterruptCount("IWI") - irqWorkBefore;
  phase.reschedules = InterruptCount("RES") - reschedulesBefore;
  phase.programs = StatsSince(programsBefore);
  phase.programNs = TotalRunNs(phase.programs);
  phase.records = RingCounters::Read(0).allWritten() + RingCounters::Read(1).allWritten() - recordsBefore;
  drain();
  const auto after = usage();
  phase.serviceNs = after.first - before.first;
  phase.wakeups = after.second - before.second;
  return phase;
}

std::pair<uint64_t, uint64_t> NoUsage() { return {0, 0}; }
void NoDrain() {}

// The first set attached by a child that consumes ring 0 with libbpf alone;
// the programs come off when it exits.
Phase MeasureBare(double seconds) {
  int ready[2], done[2];
  if (pipe(ready) != 0 || pipe(done) != 0) Die("fork_storm: pipe");
  pid_t pid = fork();
  if (pid == 0) {
    close(ready[0]);
    close(done[1]);
    (void)!freopen("/dev/null", "w", stderr);  // kprobe attach failures are expected here
    android::base::SetProperty("ro.kernel.version", kavo::test::RunningKernelVersion());
    Kavo::Bpf::AttachAllKavoBpfProgram(KavoBpfService::BPF_PROG_DIR, KavoBpfService::PROG_EVENT_MAP);
    SetControlWord(0, kProducersOn);
    {
      Tally tally(kCounted);
      BareConsumer bare(&tally);
      char go = 1;
      (void)!write(ready[1], &go, 1);
      (void)!read(done[0], &go, 1);
    }
    SetControlWord(0, 0);
    _exit(0);
  }
  close(ready[1]);
  close(done[0]);
  char go = 0;
  if (read(ready[0], &go, 1) != 1) Die("fork_storm: the bare consumer did not start");
  std::this_thread::sleep_for(kSettle);
  Phase phase = MeasureStorm(seconds, NoUsage, NoDrain);
  close(done[1]);
  close(ready[0]);
  waitpid(pid, nullptr, 0);
  return phase;
}

// Waits until |tally| has taken nothing new for a while.
void WaitDrained(const Tally& tally) {
  const auto giveUp = Clock::now() + kLongestDrain;
  uint64_t count = tally.delivered();
  auto lastChange = Clock::now();
  while (Clock::now() - lastChange < kQuietForDrain && Clock::now() < giveUp) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    if (tally.delivered() != count) {
      count = tally.delivered();
      lastChange = Clock::now();
    }
  }
}

Phase MeasureWatched(double seconds) {
  kavo::test::KavoSystem system;
  std::string why;
  if (!system.StartDaemon(&why)) Die("fork_storm: " + why);
  kavo::test::ChildProcess& daemon = *system.daemon();
  Tally tally(kCounted);
  ClientConsumer client(&tally);
  if (!client.start(kSubscribed)) Die("fork_storm: kavobpfd did not answer the subscriptions\n" + daemon.Output());
  const auto deadline = Clock::now() + std::chrono::seconds(20);
  while ((ControlWord(0) & kProducersOn) != kProducersOn || (ControlWord(1) & kProducersOn) != kProducersOn) {
    if (Clock::now() > deadline) Die("fork_storm: kavobpfd never switched its producers on\n" + daemon.Output());
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  std::this_thread::sleep_for(kSettle);

  const pid_t service = daemon.pid();
  const RingCounters ring0 = RingCounters::Read(0);
  tally.open(BootNs());
  // The service's work counts until the client has everything.
  Phase phase = MeasureStorm(
      seconds, [service] { return std::make_pair(ProcessCpuNs(service), TotalWakeups(service)); },
      [&tally] { WaitDrained(tally); });
  const RingCounters made = RingCounters::Read(0) - ring0;
  tally.close(BootNs());
  phase.delivered = tally.delivered();
  phase.emitted = made.writtenOf(kCounted) + made.lostOf(kCounted);

  daemon.Signal(SIGTERM);
  int status = 0;
  daemon.WaitExit(std::chrono::seconds(5), &status);
  return phase;
}

double MedianOf(const std::vector<double>& values) {
  std::vector<double> copy = values;
  return Median(&copy);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && strcmp(argv[1], "--storm") == 0) return StormMain(atof(argv[2]));
  int rounds = 5;
  double seconds = 3;
  bool bare = true;
  for (int i = 1; i < argc; ++i) {
    if (i + 1 < argc && strcmp(argv[i], "--rounds") == 0) {
      rounds = atoi(argv[++i]);
    } else if (i + 1 < argc && strcmp(argv[i], "--seconds") == 0) {
      seconds = atof(argv[++i]);
    } else if (strcmp(argv[i], "--no-bare") == 0) {
      bare = false;
    } else {
      Die("usage: fork_storm [--rounds N] [--seconds S] [--no-bare]");
    }
  }
  if (rounds < 1 || !(seconds > 0)) Die("usage: fork_storm [--rounds N] [--seconds S] [--no-bare]");
  if (geteuid() != 0) Die("fork_storm: needs root (BPF programs and namespaces)");
  setvbuf(stdout, nullptr, _IOLBF, 0);

  EnterNamespacesAndLoad();
  android::base::unique_fd statsOn(bpf_enable_stats(BPF_STATS_RUN_TIME));
  if (statsOn.get() < 0) Die("fork_storm: the kernel refused BPF run-time statistics");
  const double loadBefore = LoadAverage();

  printf("%-6s %10s %10s %10s %7s %9s %9s %9s %9s %9s %9s %9s %8s\n", "round", "alone/s", "bare/s", "watched/s",
         "ratio", "svc us/f", "wake/f", "bpf ns/f", "rec/f", "iwi/f", "res/f", "alone r/f", "lost");
  std::vector<double> alone, bareRates, watched, ratios, serviceUs, wakeups, programNs, bareProgramNs, records,
      irqWork, reschedules, aloneReschedules, bareIrqWork;
  Phase last;
  for (int round = 1; round <= rounds; ++round) {
    Phase quiet = MeasureStorm(seconds, NoUsage, NoDrain);
    Phase kernelOnly;
    if (bare) kernelOnly = MeasureBare(seconds);
    Phase watch = MeasureWatched(seconds);
    alone.push_back(quiet.storm.rate());
    if (bare) {
      bareRates.push_back(kernelOnly.storm.rate());
      bareProgramNs.push_back(kernelOnly.perFork(kernelOnly.programNs));
    }
    watched.push_back(watch.storm.rate());
    ratios.push_back(quiet.storm.rate() > 0 ? watch.storm.rate() / quiet.storm.rate() : 0);
    serviceUs.push_back(watch.perFork(watch.serviceNs) / 1000.0);
    wakeups.push_back(watch.perFork(watch.wakeups));
    programNs.push_back(watch.perFork(watch.programNs));
    records.push_back(watch.perFork(watch.records));
    irqWork.push_back(watch.perFork(watch.irqWork));
    reschedules.push_back(watch.perFork(watch.reschedules));
    aloneReschedules.push_back(quiet.perFork(quiet.reschedules));
    if (bare) bareIrqWork.push_back(kernelOnly.perFork(kernelOnly.irqWork));
    const uint64_t lost = watch.emitted > watch.delivered ? watch.emitted - watch.delivered : 0;
    printf("%-6d %10.0f %10.0f %10.0f %7.3f %9.2f %9.2f %9.0f %9.2f %9.2f %9.2f %9.2f %8llu\n", round,
           alone.back(), bare ? bareRates.back() : 0.0, watched.back(), ratios.back(), serviceUs.back(),
           wakeups.back(), programNs.back(), records.back(), irqWork.back(), reschedules.back(),
           aloneReschedules.back(), static_cast<unsigned long long>(lost));
    last = watch;
  }
  const double loadAfter = LoadAverage();

  printf("medians over %d rounds of %.1f s: alone %.0f forks/s, bare %.0f, watched %.0f; watched/alone %.3f "
         "(median of the rounds' ratios); service %.2f us and %.2f wake-ups per fork; programs %.0f ns per "
         "fork watched, %.0f bare; irq_work interrupts per fork %.2f watched, %.2f bare; rescheduling "
         "interrupts per fork %.2f watched, %.2f alone; load average %.2f before, %.2f after\n",
         rounds, seconds, MedianOf(alone), bare ? MedianOf(bareRates) : 0.0, MedianOf(watched), MedianOf(ratios),
         MedianOf(serviceUs), MedianOf(wakeups), MedianOf(programNs), bare ? MedianOf(bareProgramNs) : 0.0,
         MedianOf(irqWork), bare ? MedianOf(bareIrqWork) : 0.0, MedianOf(reschedules), MedianOf(aloneReschedules),
         loadBefore, loadAfter);
  printf("programs in the last watched round (runs per fork, ns per run):\n");
  for (const auto& [name, stats] : last.programs) {
    if (stats.runs == 0) continue;
    printf("  %-52s %8.2f %8.0f\n", name.c_str(), last.perFork(stats.runs),
           static_cast<double>(stats.runNs) / static_cast<double>(stats.runs));
  }
  printf("{\"benchmark\":\"fork_storm\",\"kernel\":\"%s\",\"cpus\":%ld,\"rounds\":%d,\"seconds\":%.1f,"
         "\"alone_forks_per_s\":%.0f,\"bare_forks_per_s\":%.0f,\"watched_forks_per_s\":%.0f,"
         "\"watched_to_alone\":%.3f,\"service_us_per_fork\":%.2f,\"service_wakeups_per_fork\":%.2f,"
         "\"program_ns_per_fork\":%.0f,\"bare_program_ns_per_fork\":%.0f,\"records_per_fork\":%.2f,"
         "\"irq_work_per_fork\":%.2f,\"bare_irq_work_per_fork\":%.2f,\"reschedules_per_fork\":%.2f,"
         "\"alone_reschedules_per_fork\":%.2f,\"load_before\":%.2f,\"load_after\":%.2f}\n",
         kavo::test::RunningKernelVersion().c_str(), sysconf(_SC_NPROCESSORS_ONLN), rounds, seconds, MedianOf(alone),
         bare ? MedianOf(bareRates) : 0.0, MedianOf(watched), MedianOf(ratios), MedianOf(serviceUs),
         MedianOf(wakeups), MedianOf(programNs), bare ? MedianOf(bareProgramNs) : 0.0, MedianOf(records),
         MedianOf(irqWork), bare ? MedianOf(bareIrqWork) : 0.0, MedianOf(reschedules), MedianOf(aloneReschedules),
         loadBefore, loadAfter);
  fflush(stdout);
  _exit(0);
}
