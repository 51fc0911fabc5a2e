#pragma once

// What the benchmark programs share beyond the tests' support (tests/support:
// namespaces, the loader, the daemon, control words): idle processes to fill
// the process table, ring counters, wake-ups, CPU time and figures.

#include <stdint.h>
#include <sys/types.h>

#include <initializer_list>
#include <map>
#include <string>
#include <vector>

#include "utils/kavo_bpf_helper.h"

namespace kavo::bench {

[[noreturn]] void Die(const std::string& what);

// The tests' private namespaces (support/namespaces.h: tmpfs /data and /mnt,
// a fresh bpffs and tracefs), then kavobpf_loader with |loaderArgs| through
// the tests' own loader runner; dies when either fails.
void EnterNamespacesAndLoad(const std::vector<std::string>& loaderArgs = {});

// The one-minute load average: how busy the rest of the machine was.
double LoadAverage();

// |count| children that sleep until this object is destroyed.
class SleepingProcesses {
 public:
  explicit SleepingProcesses(int count);
  ~SleepingProcesses();
  SleepingProcesses(const SleepingProcesses&) = delete;
  SleepingProcesses& operator=(const SleepingProcesses&) = delete;
  size_t size() const { return pids_.size(); }

 private:
  std::vector<pid_t> pids_;
};

// The median of |values| (which it sorts).
double Median(std::vector<double>* values);

using Kavo::Bpf::ClockNs;
// CLOCK_BOOTTIME in nanoseconds: the clock of the records' time stamps.
inline uint64_t BootNs() { return ClockNs(CLOCK_BOOTTIME); }

// Control word (key 0 of the status map) of ring 0 or 1, through the tests'
// support; dies when it cannot be read or written.
uint64_t ControlWord(int ring);
void SetControlWord(int ring, uint64_t word);

// What the programs of one set (ring 0 or 1) wrote into their ring and lost
// to a full ring, per record type, summed over CPUs (the set's pinned
// ring_stats map).
struct RingCounters {
  uint64_t written[8] = {};
  uint64_t lost[8] = {};

  static RingCounters Read(int ring);
  RingCounters operator-(const RingCounters& earlier) const;
  uint64_t writtenOf(std::initializer_list<int> types) const;
  uint64_t lostOf(std::initializer_list<int> types) const;
  uint64_t allWritten() const;
};

// A numeric field of a /proc status file, by its label ("VmRSS:"); 0 when absent.
uint64_t StatusField(const std::string& path, const char* label);

// Voluntary context switches of every thread of |pid|, by thread id, with
// the thread's name: each is one wake-up after a blocking wait.
struct ThreadWakeups {
  std::string name;
  uint64_t voluntary = 0;
};
std::map<int, ThreadWakeups> WakeupsByThread(pid_t pid);
uint64_t TotalWakeups(pid_t pid);

// Interrupts of one kind taken so far, summed over CPUs, by its name in
// /proc/interrupts ("IWI" for irq_work, "RES" for rescheduling).
uint64_t InterruptCount(const char* name);

// Nanoseconds on CPU of every thread of |pid|, or of the one thread |tid|
// (from schedstat).
uint64_t ProcessCpuNs(pid_t pid);
uint64_t ThreadCpuNs(pid_t tid);
// A thread of this process: nanoseconds on CPU, and nanoseconds it was
// runnable but waited for a CPU.
struct Schedstat {
  uint64_t runNs = 0;
  uint64_t waitNs = 0;
};
Schedstat ThreadSchedstat(pid_t tid);

// How fast the CPUs are at this moment. On a virtual machine the host moves
// the vCPUs between cores that share a cache and cores that do not, and may
// run two of them on one core's two hardware threads: a drain's figures are
// read against these. |stepNs| for CPUs 0 and 1 alone, |togetherStepNs| the
// slower of the two while both run at once: one step of a chain of dependent
// multiply-adds, by the thread's own CPU time (core speed, no memory).
// |lineRoundTripNs|: a cache line handed from CPU 0 to CPU 1 and back.
// A dependent chain uses too little of a core to slow a thread sharing it, so
// |copyNs| and |togetherCopyNs| time a copy of 8 KiB within the thread's own
// cache the same way, alone and both at once: it takes twice as long when the
// two vCPUs run on one core, or on a host that has no bandwidth to spare. The
// two-CPU figures are 0 with one CPU. Plain data: a drain's child process
// sends it through a pipe.
struct CpuSpeed {
  double stepNs[2] = {};
  double togetherStepNs = 0;
  double lineRoundTripNs = 0;
  double copyNs[2] = {};
  double togetherCopyNs = 0;
  double slowestStepNs() const { return stepNs[0] > stepNs[1] ? stepNs[0] : stepNs[1]; }
  // Both at once against the slower alone: about 1 when the vCPUs do not
  // contend, about 2 when they share a core.
  double copyContention() const {
    const double alone = copyNs[0] > copyNs[1] ? copyNs[0] : copyNs[1];
    return alone > 0 ? togetherCopyNs / alone : 0;
  }
};
CpuSpeed ProbeCpuSpeed();

}  // namespace kavo::bench
