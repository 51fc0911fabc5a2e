#pragma once

// Free helpers of the service shared by every subsystem: the time base and
// its clocks, the service threads' CPUs, and the attachment of pinned BPF
// programs (single programs, a whole catalogue table, or a directory). The
// string utilities, which the IPC framework uses too, are in
// kavo_bpf_helper_string.h.
//
// Thread-safety: every function is re-entrant. The time base is written once
// by InitBasetime() before any other service thread reads it.

#include <sched.h>
#include <stdint.h>
#include <time.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "utils/kavo_bpf_export.h"
#include "utils/kavo_bpf_helper_string.h"

namespace Kavo::Bpf {

// ---- Time base -------------------------------------------------------------

// Seconds since the epoch at which the system booted ("btime" of /proc/stat).
extern long long __basetime;

// Reads the boot time into __basetime. True when /proc/stat could be opened,
// even if it held no usable "btime " line (the base then stays as it was).
KAVO_EXPORT bool InitBasetime();
KAVO_EXPORT long long GetBasetime();

// CLOCK_BOOTTIME in nanoseconds, deliberately computed in 32-bit signed
// arithmetic and sign-extended: it wraps about every 4.29 s and is only good
// for short differences. The BPF programs stamp records with the full 64-bit
// boot time; do not compare the two.
KAVO_EXPORT unsigned long long GetSystemBootNanosencondsTime();
// (base + CLOCK_MONOTONIC seconds) in ns / us; 64-bit arithmetic.
KAVO_EXPORT unsigned long long GetSystemNanosencondsTime();
KAVO_EXPORT unsigned long long GetSystemMicrosencondsTime();
// (base + seconds) in ms, from CLOCK_MONOTONIC when |monotonic|, else CLOCK_BOOTTIME.
KAVO_EXPORT unsigned long long GetSystemMillisecondsTime(bool monotonic);
// The service's seconds clock: base + CLOCK_BOOTTIME seconds.
KAVO_EXPORT unsigned long long GetSystemSecondsTime();
// A clock's whole time in nanoseconds, in 64 bits; CLOCK_BOOTTIME is the
// clock of the records' time stamps. Inline: the state counters read it on
// every record.
inline uint64_t ClockNs(clockid_t clock) {
  struct timespec ts = {};
  clock_gettime(clock, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

KAVO_EXPORT long long SubAbs(long long a, long long b);
// later - earlier for kernel nanosecond stamps, wrapping in two's complement
// (defined for any pair, unlike a signed subtraction).
inline long long ElapsedNs(unsigned long long later, long long earlier) {
  return static_cast<long long>(later - static_cast<unsigned long long>(earlier));
}

// ---- Service threads -------------------------------------------------------

// CPUs 0 to 2, where every service thread runs.
cpu_set_t ServiceCpuSet();
// Names the calling thread and pins it to |cpus|; false (errno set) when the
// affinity could not be set. The name is set either way.
bool NameAndPinThread(const char* name, const cpu_set_t& cpus);

// ---- Program catalogue and attachment --------------------------------------

// Object-set name -> attach kind (0 tracepoint, 1 kprobe, 2 kretprobe) ->
// program descriptors {program name, category or function, event, kernel
// compatibility}.
using KavoBpfProgTable =
    std::map<std::string, std::map<int, std::vector<std::vector<std::string>>>>;

enum KavoBpfAttachKind : int {
  KAVO_ATTACH_TRACEPOINT = 0,
  KAVO_ATTACH_KPROBE = 1,
  KAVO_ATTACH_KRETPROBE = 2,
};

// Whether "ro.kernel.version" satisfies a condition such as "5.0+", "5.10-",
// "5.4-5.10" or "5.10".
KAVO_EXPORT bool CheckBpfCompatibility(const std::string& condition);
// True when |fileName| begins with "prog_".
KAVO_EXPORT bool IsBpfProg(const std::string& fileName);

// Opens the object pinned at |path| (with bpf_obj_get, or read-only): its
// descriptor, or -1 with errno set. libbpf itself returns -errno.
int OpenPinnedObject(const std::string& path, bool readOnly = false);

KAVO_EXPORT int RetrieveProgramFd(const std::string& dir, const std::string& fileName);
KAVO_EXPORT int RetrieveProgramFd(const std::string& dir, const std::string& set,
                                  const std::string& type, const std::string& progName);

KAVO_EXPORT int AttachTracepointProgram(const std::string& dir, const std::string& set,
                                        const std::string& progName, const std::string& category,
                                        const std::string& event);
KAVO_EXPORT int AttachTracepointProgram(const std::string& dir, const std::string& fileName,
                                        const std::string& category, const std::string& event);
KAVO_EXPORT int AttachTracepointProgram(const std::string& dir, const std::string& set,
                                        const std::string& progName);

// A program pinned as a kprobe or kretprobe is attached by its own type: a
// kprobe program through bcc (event <progName>_kavobpf), a trampoline twin
// that the loader pinned in its place (fentry or fexit) through a BPF link.
// The result is the descriptor that keeps it attached, or -1 (errno set;
// EEXIST when the twin is attached already).
KAVO_EXPORT int AttachKProbeProgram(const std::string& dir, const std::string& set,
                                    const std::string& progName, const std::string& functionName,
                                    bool entry);
KAVO_EXPORT int AttachKProbeProgram(const std::string& dir, const std::string& set,
                                    const std::string& progName);

// Both return the number of programs that failed to attach.
KAVO_EXPORT int AttachAllKavoBpfProgram(const std::string& dir, const KavoBpfProgTable& table);
KAVO_EXPORT int AttachAllKavoBpfProgram(const std::string& dir);

}  // namespace Kavo::Bpf
