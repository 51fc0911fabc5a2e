// fd_install_cost: what the descriptor program costs every open() of the
// machine. A tight loop opens and closes /dev/null (one fd_install each)
// with the program detached, attached with its set's producers off (the
// program runs and stops at the producer gate) and attached with them on
// (lookups, the count, a recount of the descriptor table every
// KAVO_FD_REPORT_STEP installs; an open/close loop never moves the count far
// enough to be reported). The three are measured in turn, in a rotating
// order, several rounds in one run, and the medians compared.
//
// The loader pins the flavour the kernel can attach (a kprobe, or the fentry
// twin where the kernel has no kprobes) and the program is attached the
// service's way, through AttachKProbeProgram. Where the kernel takes neither,
// only the detached loop is measured and the JSON says why.
//
// Runs as root in private mount and network namespaces of its own (a fresh
// bpffs for the pins). Usage: fd_install_cost [--rounds N] [--opens N]

#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "bench_support.h"
#include "support/kernel.h"
#include "bpf/kavo_bpf_records.h"
#include "service/kavo_bpf_service.h"
#include "utils/kavo_bpf_helper.h"

namespace {

using namespace kavo::bench;
using Kavo::Bpf::KavoBpfService;

constexpr uint64_t kProducersOn = KAVO_RING_CORE_ENABLED_BIT | KAVO_RING_NORMAL_ENABLED_BIT;

enum Mode { kDetached, kGated, kOn, kModes };
const char* const kModeNames[kModes] = {"detached", "attached, producers off",
                                        "attached, producers on"};
const char* const kModeKeys[kModes] = {"detached", "gated", "on"};

// Nanoseconds per open()+close() of /dev/null, over |opens| of them.
double OpenCloseNs(int opens) {
  uint64_t start = ClockNs(CLOCK_MONOTONIC);
  for (int i = 0; i < opens; ++i) {
    int fd = open("/dev/null", O_RDONLY);
    if (fd < 0) Die(std::string("open /dev/null: ") + strerror(errno));
    close(fd);
  }
  return static_cast<double>(ClockNs(CLOCK_MONOTONIC) - start) / opens;
}

// Attaches the pinned descriptor program as the service does; the returned
// descriptor keeps it attached until it is closed.
android::base::unique_fd AttachFdProgram() {
  return android::base::unique_fd(Kavo::Bpf::AttachKProbeProgram(
      KavoBpfService::BPF_PROG_DIR, "KavoBpfDefineset", "enter_fd_install", "fd_install", true));
}

// "kprobe" or "fentry": the type of the program the loader pinned.
std::string PinnedFlavour() {
  android::base::unique_fd fd(bpf_obj_get(
      (KavoBpfService::BPF_FS_PATH + "/prog_KavoBpfDefineset_kprobe_enter_fd_install").c_str()));
  struct bpf_prog_info info = {};
  __u32 length = sizeof(info);
  if (fd.get() < 0 || bpf_obj_get_info_by_fd(fd.get(), &info, &length) != 0) return "none";
  return info.type == BPF_PROG_TYPE_TRACING ? "fentry" : "kprobe";
}

int ParseCount(const char* text, const char* option) {
  char* end = nullptr;
  long value = strtol(text, &end, 10);
  if (end == text || *end != '\0' || value < 1 || value > 100000000) {
    Die(std::string(option) + " needs a positive number, got '" + text + "'");
  }
  return static_cast<int>(value);
}

}  // namespace

int main(int argc, char** argv) {
  int rounds = 7;
  int opens = 200000;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--rounds" && i + 1 < argc) {
      rounds = ParseCount(argv[++i], "--rounds");
    } else if (arg == "--opens" && i + 1 < argc) {
      opens = ParseCount(argv[++i], "--opens");
    } else {
      fprintf(stderr, "Usage: fd_install_cost [--rounds N] [--opens N]\n");
      return 2;
    }
  }
  EnterNamespacesAndLoad();
  const std::string flavour = PinnedFlavour();

  // Can it be attached at all here? The attach path logs why not.
  std::string refusal;
  {
    android::base::unique_fd probe = AttachFdProgram();
    if (probe.get() < 0) refusal = flavour + " program: " + strerror(errno);
  }
  const bool attachable = refusal.empty();
  const int modes = attachable ? kModes : 1;

  OpenCloseNs(opens / 10);  // warm the caches and the dentry of /dev/null
  std::vector<double> ns[kModes];
  for (int round = 0; round < rounds; ++round) {
    for (int step = 0; step < modes; ++step) {
      Mode mode = static_cast<Mode>((round + step) % modes);
      android::base::unique_fd attached;
      if (mode != kDetached) {
        attached = AttachFdProgram();
        if (attached.get() < 0) Die(std::string("attaching again: ") + strerror(errno));
      }
      SetControlWord(0, mode == kOn ? kProducersOn : 0);
      ns[mode].push_back(OpenCloseNs(opens));
      SetControlWord(0, 0);
    }
  }

  double median[kModes] = {};
  printf("\nfd_install cost, %s program (%d rounds of %d open+close each, kernel %s, load %.2f)\n",
         flavour.c_str(), rounds, opens, kavo::test::RunningKernelVersion().c_str(), LoadAverage());
  printf("%-26s %12s %12s %12s\n", "", "median ns", "min ns", "max ns");
  for (int mode = 0; mode < modes; ++mode) {
    std::vector<double> values = ns[mode];
    median[mode] = Median(&values);
    printf("%-26s %12.1f %12.1f %12.1f\n", kModeNames[mode], median[mode], values.front(),
           values.back());
  }
  if (attachable) {
    printf("%-26s %12.1f ns per open (%+.1f %%), gate alone %.1f ns\n", "program cost",
           median[kOn] - median[kDetached],
           100.0 * (median[kOn] - median[kDetached]) / median[kDetached],
           median[kGated] - median[kDetached]);
  } else {
    printf("the program could not be attached here (%s): only the detached loop ran\n",
           refusal.c_str());
  }

  printf("{\"benchmark\":\"fd_install_cost\",\"kernel\":\"%s\",\"flavour\":\"%s\","
         "\"attached\":%s,\"reason\":\"%s\",\"rounds\":%d,\"opens\":%d",
         kavo::test::RunningKernelVersion().c_str(), flavour.c_str(), attachable ? "true" : "false", refusal.c_str(),
         rounds, opens);
  for (int mode = 0; mode < modes; ++mode) printf(",\"%s_ns\":%.1f", kModeKeys[mode], median[mode]);
  if (attachable) printf(",\"overhead_ns\":%.1f", median[kOn] - median[kDetached]);
  printf(",\"load_average\":%.2f}\n", LoadAverage());
  return 0;
}
