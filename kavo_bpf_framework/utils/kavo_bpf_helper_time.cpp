// The time base and the clocks built on it.

#include <time.h>

#include <string>

#include "utils/kavo_bpf_file.h"
#include "utils/kavo_bpf_helper.h"

namespace Kavo::Bpf {

long long __basetime = 0;

namespace {

constexpr char kBootTimePrefix[] = "btime ";
constexpr size_t kBootTimePrefixLength = sizeof(kBootTimePrefix) - 1;

struct timespec ReadClock(clockid_t clock) {
  struct timespec ts = {};
  clock_gettime(clock, &ts);
  return ts;
}

}  // namespace

bool InitBasetime() {
  ScopedFile stat = OpenForRead("/proc/stat");
  if (!stat) return false;
  ForEachLine(stat.get(), [](std::string_view line) {
    if (line.find(kBootTimePrefix) == std::string_view::npos) return LineAction::kContinue;
    long long value;
    // A damaged value leaves the base as it was rather than ending the thread.
    if (line.size() >= kBootTimePrefixLength &&
        ParseDecimal(line.substr(kBootTimePrefixLength), &value)) {
      __basetime = value;
    }
    return LineAction::kStop;
  });
  return true;
}

long long GetBasetime() { return __basetime; }

unsigned long long GetSystemBootNanosencondsTime() {
  struct timespec ts = ReadClock(CLOCK_BOOTTIME);
  // 32-bit on purpose (see the header); done unsigned so the wrap is defined.
  uint32_t wrapped = static_cast<uint32_t>(ts.tv_sec) * 1000000000u + static_cast<uint32_t>(ts.tv_nsec);
  return static_cast<unsigned long long>(static_cast<long long>(static_cast<int32_t>(wrapped)));
}

unsigned long long GetSystemNanosencondsTime() {
  struct timespec ts = ReadClock(CLOCK_MONOTONIC);
  return static_cast<unsigned long long>(__basetime + ts.tv_sec) * 1000000000ull +
         static_cast<unsigned long long>(ts.tv_nsec);
}

unsigned long long GetSystemMicrosencondsTime() {
  struct timespec ts = ReadClock(CLOCK_MONOTONIC);
  return static_cast<unsigned long long>(__basetime + ts.tv_sec) * 1000000ull +
         static_cast<unsigned long long>(ts.tv_nsec / 1000);
}

unsigned long long GetSystemMillisecondsTime(bool monotonic) {
  struct timespec ts = ReadClock(monotonic ? CLOCK_MONOTONIC : CLOCK_BOOTTIME);
  return static_cast<unsigned long long>(__basetime + ts.tv_sec) * 1000ull +
         static_cast<unsigned long long>(ts.tv_nsec / 1000000);
}

unsigned long long GetSystemSecondsTime() {
  struct timespec ts = ReadClock(CLOCK_BOOTTIME);
  return static_cast<unsigned long long>(__basetime + ts.tv_sec);
}

long long SubAbs(long long a, long long b) {
  // Two's complement in 64 bits, as the counters are compared elsewhere.
  unsigned long long diff = static_cast<unsigned long long>(a) - static_cast<unsigned long long>(b);
  long long d = static_cast<long long>(diff);
  return d < 0 ? static_cast<long long>(0ull - diff) : d;
}

}  // namespace Kavo::Bpf
