#include "bench_support.h"

#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "bpf/kavo_bpf_records.h"
#include "service/kavo_bpf_service.h"
#include "support/processes.h"
#include "utils/kavo_bpf_file.h"
#include "utils/kavo_bpf_helper.h"
#include "support/kernel.h"
#include "support/kernel_stand_ins.h"
#include "support/namespaces.h"

namespace kavo::bench {

void Die(const std::string& what) {
  fprintf(stderr, "%s\n", what.c_str());
  exit(1);
}

void EnterNamespacesAndLoad(const std::vector<std::string>& loaderArgs) {
  std::string why;
  if (!kavo::test::EnterPrivateNamespaces(kavo::test::PrivateMounts(), &why) ||
      !kavo::test::LoadKernelSide(&why, loaderArgs)) {
    Die(why);
  }
}

double LoadAverage() {
  double load = 0;
  Kavo::Bpf::ScopedFile file = Kavo::Bpf::OpenForRead("/proc/loadavg");
  if (file && fscanf(file.get(), "%lf", &load) != 1) load = 0;
  return load;
}

SleepingProcesses::SleepingProcesses(int count) {
  for (int i = 0; i < count; ++i) {
    pid_t pid = fork();
    if (pid == 0) {
      while (true) pause();
    }
    if (pid < 0) Die(std::string("fork: ") + strerror(errno));
    pids_.push_back(pid);
  }
}

SleepingProcesses::~SleepingProcesses() {
  for (pid_t pid : pids_) kill(pid, SIGKILL);
  for (pid_t pid : pids_) waitpid(pid, nullptr, 0);
}

namespace {

using Kavo::Bpf::KavoBpfService;

android::base::unique_fd OpenPinned(const std::string& path) {
  android::base::unique_fd fd(bpf_obj_get(path.c_str()));
  if (fd.get() < 0) Die("opening " + path + ": " + strerror(errno));
  return fd;
}

// map_<set>_ring_stats beside the set's map_<set>_ringbuf_map.
std::string RingStatsPath(int ring) {
  std::string path = KavoBpfService::RINGBUF_MAP_PATH[ring];
  return path.substr(0, path.rfind('_', path.rfind('_') - 1)) + "_ring_stats";
}

// "run ns, runnable-and-waiting ns, timeslices"; zeros when unreadable.
Schedstat ReadSchedstat(const std::string& path) {
  Schedstat stat;
  Kavo::Bpf::ScopedFile file = Kavo::Bpf::OpenForRead(path.c_str());
  unsigned long long run = 0, wait = 0;
  if (file && fscanf(file.get(), "%llu %llu", &run, &wait) == 2) stat = {run, wait};
  return stat;
}

uint64_t SchedstatNs(const std::string& path) { return ReadSchedstat(path).runNs; }

}  // namespace

uint64_t ControlWord(int ring) {
  int64_t word = kavo::test::ReadControlWord(KavoBpfService::RINGBUF_STATUS_PATH[ring]);
  if (word < 0) Die("reading a control word");
  return static_cast<uint64_t>(word);
}

void SetControlWord(int ring, uint64_t word) {
  if (!kavo::test::WriteControlWord(KavoBpfService::RINGBUF_STATUS_PATH[ring], word)) Die("writing a control word");
}

RingCounters RingCounters::Read(int ring) {
  android::base::unique_fd fd = OpenPinned(RingStatsPath(ring));
  std::vector<uint64_t> perCpu(static_cast<size_t>(libbpf_num_possible_cpus()));
  RingCounters counters;
  for (uint32_t key = 0; key < KAVO_RING_STATS_KEYS; ++key) {
    if (bpf_map_lookup_elem(fd.get(), &key, perCpu.data()) != 0) Die("reading ring_stats");
    uint64_t sum = 0;
    for (uint64_t value : perCpu) sum += value;
    if (key < KAVO_RING_STATS_LOST_BASE) {
      counters.written[key] = sum;
    } else {
      counters.lost[key - KAVO_RING_STATS_LOST_BASE] = sum;
    }
  }
  return counters;
}

RingCounters RingCounters::operator-(const RingCounters& earlier) const {
  RingCounters delta;
  for (int type = 0; type < 8; ++type) {
    delta.written[type] = written[type] - earlier.written[type];
    delta.lost[type] = lost[type] - earlier.lost[type];
  }
  return delta;
}

uint64_t RingCounters::writtenOf(std::initializer_list<int> types) const {
  uint64_t sum = 0;
  for (int type : types) sum += written[type];
  return sum;
}

uint64_t RingCounters::lostOf(std::initializer_list<int> types) const {
  uint64_t sum = 0;
  for (int type : types) sum += lost[type];
  return sum;
}

uint64_t RingCounters::allWritten() const {
  uint64_t sum = 0;
  for (uint64_t value : written) sum += value;
  return sum;
}

uint64_t StatusField(const std::string& path, const char* label) {
  uint64_t value = 0;
  const size_t length = strlen(label);
  Kavo::Bpf::ForEachLine(path.c_str(), [&](std::string_view line) {
    if (line.compare(0, length, label) != 0) return Kavo::Bpf::LineAction::kContinue;
    value = strtoull(std::string(line.substr(length)).c_str(), nullptr, 10);
    return Kavo::Bpf::LineAction::kStop;
  });
  return value;
}

std::map<int, ThreadWakeups> WakeupsByThread(pid_t pid) {
  std::map<int, ThreadWakeups> threads;
  const std::string dir = "/proc/" + std::to_string(pid) + "/task/";
  for (const auto& [tid, name] : kavo::test::ThreadsOf(pid)) {
    ThreadWakeups& thread = threads[tid];
    thread.name = name;
    thread.voluntary = StatusField(dir + std::to_string(tid) + "/status", "voluntary_ctxt_switches:");
  }
  return threads;
}

uint64_t TotalWakeups(pid_t pid) {
  uint64_t total = 0;
  for (const auto& entry : WakeupsByThread(pid)) total += entry.second.voluntary;
  return total;
}

uint64_t InterruptCount(const char* name) {
  uint64_t total = 0;
  const size_t length = strlen(name);
  Kavo::Bpf::ForEachLine("/proc/interrupts", [&](std::string_view line) {
    size_t at = line.find_first_not_of(' ');
    if (at == std::string_view::npos || line.compare(at, length, name) != 0 || line.size() <= at + length ||
        line[at + length] != ':') {
      return Kavo::Bpf::LineAction::kContinue;
    }
    // "IWI:  123  456  IRQ work interrupts": the counts, one per CPU.
    std::string rest(line.substr(at + length + 1));
    const char* p = rest.c_str();
    char* end = nullptr;
    for (unsigned long long count = strtoull(p, &end, 10); end != p; count = strtoull(p, &end, 10)) {
      total += count;
      p = end;
    }
    return Kavo::Bpf::LineAction::kStop;
  });
  return total;
}

uint64_t ProcessCpuNs(pid_t pid) {
  std::string dir = "/proc/" + std::to_string(pid) + "/task";
  uint64_t ns = 0;
  Kavo::Bpf::ForEachDirEntry(dir.c_str(), [&](const char* name) {
    if (Kavo::Bpf::IsDigits(name)) ns += SchedstatNs(dir + "/" + name + "/schedstat");
    return Kavo::Bpf::LineAction::kContinue;
  });
  return ns;
}

Schedstat ThreadSchedstat(pid_t tid) {
  return ReadSchedstat("/proc/self/task/" + std::to_string(tid) + "/schedstat");
}

uint64_t ThreadCpuNs(pid_t tid) { return ThreadSchedstat(tid).runNs; }

namespace {

constexpr int kProbeSteps = 400000;
constexpr int kProbeRoundTrips = 20000;
constexpr size_t kProbeCopyBytes = 8192;
constexpr int kProbeCopies = 40000;

void PinTo(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  Kavo::Bpf::NameAndPinThread("kavoCpuProbe", set);
}

// One thread per CPU of |cpus|, all at once, each running |probe| pinned to
// its CPU; what each returned.
template <typename Probe>
std::vector<double> OnCpus(std::initializer_list<int> cpus, Probe probe) {
  std::vector<double> ns(cpus.size());
  std::vector<std::thread> probes;
  size_t slot = 0;
  for (int cpu : cpus) {
    probes.emplace_back([cpu, out = &ns[slot++], &probe] {
      PinTo(cpu);
      *out = probe();
    });
  }
  for (std::thread& thread : probes) thread.join();
  return ns;
}

// One step of a chain of dependent multiply-adds, by the thread's CPU time.
double StepNs() {
  uint64_t x = 1;
  const uint64_t start = ClockNs(CLOCK_THREAD_CPUTIME_ID);
  for (int i = 0; i < kProbeSteps; ++i) {
    x = x * 6364136223846793005ull + 1442695040888963407ull;
    asm volatile("" : "+r"(x));
  }
  return static_cast<double>(ClockNs(CLOCK_THREAD_CPUTIME_ID) - start) / kProbeSteps;
}

// One copy of 8 KiB between two buffers in the thread's own cache, by its CPU
// time: bound by the core's loads and stores, which two hardware threads share.
double CopyNs() {
  std::vector<char> from(kProbeCopyBytes, 1), to(kProbeCopyBytes);
  memcpy(to.data(), from.data(), kProbeCopyBytes);  // both in the cache before the clock
  const uint64_t start = ClockNs(CLOCK_THREAD_CPUTIME_ID);
  for (int i = 0; i < kProbeCopies; ++i) {
    memcpy(to.data(), from.data(), kProbeCopyBytes);
    asm volatile("" : : "r"(to.data()) : "memory");
  }
  return static_cast<double>(ClockNs(CLOCK_THREAD_CPUTIME_ID) - start) / kProbeCopies;
}

double LineRoundTripNs() {
  alignas(64) std::atomic<int> line{0};
  std::thread echo([&line] {
    PinTo(1);
    for (int i = 0; i < kProbeRoundTrips; ++i) {
      while (line.load(std::memory_order_acquire) != 2 * i + 1) {
      }
      line.store(2 * i + 2, std::memory_order_release);
    }
  });
  double ns = 0;
  std::thread ask([&line, &ns] {
    PinTo(0);
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kProbeRoundTrips; ++i) {
      line.store(2 * i + 1, std::memory_order_release);
      while (line.load(std::memory_order_acquire) != 2 * i + 2) {
      }
    }
    ns = std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count() /
         kProbeRoundTrips;
  });
  ask.join();
  echo.join();
  return ns;
}

}  // namespace

CpuSpeed ProbeCpuSpeed() {
  CpuSpeed speed;
  const int cpus = std::min(2, static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN)));
  for (int cpu = 0; cpu < cpus; ++cpu) {
    speed.stepNs[cpu] = OnCpus({cpu}, StepNs)[0];
    speed.copyNs[cpu] = OnCpus({cpu}, CopyNs)[0];
  }
  if (cpus == 2) {
    const std::vector<double> together = OnCpus({0, 1}, StepNs);
    speed.togetherStepNs = std::max(together[0], together[1]);
    const std::vector<double> copies = OnCpus({0, 1}, CopyNs);
    speed.togetherCopyNs = std::max(copies[0], copies[1]);
    speed.lineRoundTripNs = LineRoundTripNs();
  }
  return speed;
}

double Median(std::vector<double>* values) {
  if (values->empty()) return 0;
  std::sort(values->begin(), values->end());
  const size_t middle = values->size() / 2;
  // An even count has two middle values: their mean, not the upper one.
  return values->size() % 2 != 0 ? (*values)[middle] : ((*values)[middle - 1] + (*values)[middle]) / 2;
}

}  // namespace kavo::bench
