// The service state record: per-second event and poll counters over 30
// minutes, and their CSV dump.

#include "service/kavo_bpf_state.h"

#include <android/log.h>
#include <stdio.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "bpf/kavo_bpf_records.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_signals.h"
#include "utils/kavo_bpf_file.h"
#include "utils/kavo_bpf_helper.h"

namespace Kavo::Bpf {

namespace {

constexpr char kTag[] = "BpfUtils";
constexpr int64_t kNsPerSecond = 1000000000;

}  // namespace

const std::string KavoBpfDataState::KAVOTASK_DUMP_PATH = "/data/kavolog/stability/kavobpfframework";
const std::string KavoBpfDataState::KAVOTASK_DUMP_TEMPLATE =
    "/data/kavolog/stability/kavobpfframework/bpfservice_state.csv";

KavoBpfDataState* KavoBpfDataState::GetInstance() {
  static KavoBpfDataState* instance = new KavoBpfDataState(BootClock());
  return instance;
}

KavoBpfDataState::KavoBpfDataState(std::function<long long()> secondsClock)
    : clock(std::move(secondsClock)), lastTime(clock()) {
  for (Slot& slot : slots) {
    for (std::atomic<uint32_t>& counter : slot) counter.store(0, std::memory_order_relaxed);
  }
}

KavoBpfDataState::KavoBpfDataState(BootClock)
    : KavoBpfDataState([] { return static_cast<long long>(GetSystemSecondsTime()); }) {
  struct timespec resolution;
  if (clock_getres(CLOCK_MONOTONIC_COARSE, &resolution) == 0) {
    gated_ = true;
    coarseResolutionNs_ = resolution.tv_sec * kNsPerSecond + resolution.tv_nsec;
  }
}

bool KavoBpfDataState::secondMayHaveChanged() {
  const int64_t coarse = static_cast<int64_t>(ClockNs(CLOCK_MONOTONIC_COARSE));
  if (coarse < gateNs_.load(std::memory_order_relaxed)) return false;
  // The coarse clock is the time of the last tick: stop trusting it two
  // ticks before the next second begins, one to spare for a late tick.
  const int64_t boot = static_cast<int64_t>(ClockNs(CLOCK_BOOTTIME));
  const int64_t toNextSecond = kNsPerSecond - boot % kNsPerSecond;
  gateNs_.store(coarse + toNextSecond - 2 * coarseResolutionNs_, std::memory_order_relaxed);
  return true;
}

int KavoBpfDataState::SlotOf(long long t) {
  // A clock that stepped back can make seconds negative.
  long long slot = t % kSlots;
  return static_cast<int>(slot < 0 ? slot + kSlots : slot);
}

void KavoBpfDataState::advance() {
  std::lock_guard<std::mutex> guard(advanceLock);
  // Read under the lock: a time read before another thread advanced could be
  // older than the second it moved to, and would move newest back.
  long long now = clock();
  long long last = lastTime.load(std::memory_order_relaxed);
  if (now == last) return;  // another thread got here first
  int32_t delta = static_cast<int32_t>(now - last);
  lastTime.store(clock(), std::memory_order_relaxed);
  int current = newest.load(std::memory_order_relaxed);
  int next = current + delta;
  if (static_cast<long long>(next) - oldest.load(std::memory_order_relaxed) >= kSlots) {
    oldest.store(next - (kSlots - 1), std::memory_order_relaxed);
  }
  // Clearing more than a full turn of slots changes nothing further.
  int cleared = std::min<int32_t>(delta, kSlots);
  for (int i = 1; i <= cleared; ++i) {
    for (std::atomic<uint32_t>& counter : slots[SlotOf(static_cast<long long>(current) + i)]) {
      counter.store(0, std::memory_order_relaxed);
    }
  }
  // Publishes the cleared slot before anyone adds to it.
  newest.store(next, std::memory_order_release);
}

void KavoBpfDataState::RecordEvent(int type, int count) {
  if (type < 0 || type >= kCounters) return;
  if ((!gated_ || secondMayHaveChanged()) && clock() != lastTime.load(std::memory_order_relaxed)) {
    advance();
  }
  slots[SlotOf(newest.load(std::memory_order_acquire))][type].fetch_add(
      static_cast<uint32_t>(count), std::memory_order_relaxed);
}

uint32_t KavoBpfDataState::counterAt(long long t, int type) const {
  if (type < 0 || type >= kCounters) return 0;
  return slots[SlotOf(t)][type].load(std::memory_order_relaxed);
}

bool KavoBpfDataState::DumpState() {
  MakeDirs(KAVOTASK_DUMP_PATH, 0775);
  unlink(KAVOTASK_DUMP_TEMPLATE.c_str());
  ScopedFile file(fopen(KAVOTASK_DUMP_TEMPLATE.c_str(), "we"));
  if (!file) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "[KavoBpfDataState][DumpState] open file failed!");
    return false;
  }
  int first, last;
  {
    // A consistent pair; the counters themselves are read as they are.
    std::lock_guard<std::mutex> guard(advanceLock);
    first = newest.load(std::memory_order_relaxed);
    last = oldest.load(std::memory_order_relaxed);
  }
  FILE* out = file.get();
  fputs("EventCount, ", out);
  for (const char* name : KavoBpfService::EVENT_TYPE_NAMES) fprintf(out, "%s, ", name);
  fprintf(out, "PollCount, %lld, %lld \r\n", static_cast<long long>(first),
          static_cast<long long>(last));
  for (long long t = first; t >= last; --t) {
    uint32_t values[kCounters];
    uint32_t events = 0;
    for (int type = 0; type < kCounters; ++type) {
      values[type] = counterAt(t, type);
      if (type <= KAVO_EVENT_RAW_MAX) events += values[type];
    }
    fprintf(out, "%d, ", static_cast<int>(events));
    for (uint32_t value : values) fprintf(out, "%d, ", static_cast<int>(value));
    fputs("\r\n", out);
  }
  return fflush(out) == 0 && !ferror(out);
}

void DumpState(int signalNumber) { RequestDump(signalNumber); }

}  // namespace Kavo::Bpf
