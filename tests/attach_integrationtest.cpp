// The real programs, pinned by the loader and attached by the service's
// catalogue walk: which attach on which kernel, and what the attached
// programs write into the rings when a process of the test forks, grows,
// starts a thread, moves to a cgroup and ends.

#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <android/log.h>
#include <bpf/bpf.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "bpf/kavo_bpf_records.h"
#include "support/kernel_stand_ins.h"
#include "support/kernel.h"
#include "support/log_capture.h"
#include "support/harness.h"
#include "service/kavo_bpf_service.h"

namespace {

using Kavo::Bpf::AttachAllKavoBpfProgram;
using Kavo::Bpf::KavoBpfService;

constexpr uint64_t kAllProducers = KAVO_RING_CORE_ENABLED_BIT | KAVO_RING_NORMAL_ENABLED_BIT;
const char* const kDmaBufProbes[] = {"dma_buf_file_release", "dma_buf_stats_setup",
                                     "dma_buf_dynamic_attach", "dma_buf_vmap",
                                     "dma_buf_mmap_internal"};

// Loads the kernel side; false when the test cannot go on (skipped or failed).
// The loader's output, which says what it pinned for each kprobe program,
// goes to *output when given.
bool LoadKernelSide(const std::vector<std::string>& args = {}, std::string* output = nullptr) {
  std::string why;
  if (!kavo::test::BpfAvailable(&why)) {
    [&] { KAVO_KERNEL_SKIP(why); }();
    return false;
  }
  bool loaded = kavo::test::LoadKernelSide(&why, args, output);
  EXPECT_TRUE(loaded) << why;
  return loaded;
}

// The kprobe programs of the catalogue, by set.
std::vector<std::pair<std::string, std::string>> KprobePrograms() {
  std::vector<std::pair<std::string, std::string>> programs = {
      {"KavoBpfDefineset", "enter_fd_install"}};
  for (const char* probe : kDmaBufProbes) programs.emplace_back("KavoBpfGplDefineset", probe);
  return programs;
}

TEST(Attach, OnA515KernelTheDmaBufProbesAreSkipped) {
  kavo::test::RunInNamespace([] {
    std::string loaded;
    if (!LoadKernelSide({}, &loaded)) return;
    android::base::SetProperty("ro.kernel.version", "5.15");
    kavo::test::LogCapture log;
    bool fdInstall = kavo::test::PinnedProbeAttaches(
        kavo::test::PinnedProbeOf(loaded, "KavoBpfDefineset", "enter_fd_install"));
    EXPECT_EQ(fdInstall ? 0 : 1, AttachAllKavoBpfProgram(KavoBpfService::BPF_PROG_DIR,
                                                         KavoBpfService::PROG_EVENT_MAP));
    EXPECT_EQ(0, AttachAllKavoBpfProgram(KavoBpfService::BPF_PROG_DIR,
                                         KavoBpfService::PROG_GPL_EVENT_MAP));
    for (const char* probe : kDmaBufProbes) {
      EXPECT_EQ(1u, log.Count(std::string("Skip bpf prog: KavoBpfGplDefineset, progName: ") +
                                  probe + ", kernelCompat: 6.1+",
                              ANDROID_LOG_WARN))
          << probe;
    }
    EXPECT_EQ(5u, log.Count("Skip bpf prog"));
    EXPECT_EQ(0u, log.Count("Attach tracepoint prog failed"));
    EXPECT_EQ(7u, log.Count("Attach bpf prog start:"))
        << "five base programs and the two GPL tracepoints";
  });
}

// Whatever flavour the loader pinned in each kprobe program's place, the
// service attaches what the kernel takes and logs and counts the rest, each
// under its kprobe's name.
void ExpectWhatWasPinnedAttaches(const std::string& loaded) {
  android::base::SetProperty("ro.kernel.version", kavo::test::RunningKernelVersion());
  kavo::test::LogCapture log;
  std::map<std::string, int> failing;
  for (const auto& [set, program] : KprobePrograms()) {
    kavo::test::PinnedProbe pinned = kavo::test::PinnedProbeOf(loaded, set, program);
    ASSERT_FALSE(pinned.flavour.empty()) << set << " " << program << " missing in\n" << loaded;
    failing[set] += kavo::test::PinnedProbeAttaches(pinned) ? 0 : 1;
  }
  EXPECT_EQ(failing["KavoBpfDefineset"],
            AttachAllKavoBpfProgram(KavoBpfService::BPF_PROG_DIR, KavoBpfService::PROG_EVENT_MAP));
  EXPECT_EQ(failing["KavoBpfGplDefineset"], AttachAllKavoBpfProgram(
                                                KavoBpfService::BPF_PROG_DIR,
                                                KavoBpfService::PROG_GPL_EVENT_MAP));
  for (const auto& [set, program] : KprobePrograms()) {
    kavo::test::PinnedProbe pinned = kavo::test::PinnedProbeOf(loaded, set, program);
    EXPECT_EQ(kavo::test::PinnedProbeAttaches(pinned) ? 0u : 1u,
              log.Count("Attach kprobe prog failed: " + set + ", progname: " + program + ", msg: ",
                        ANDROID_LOG_ERROR))
        << program << " pinned as " << pinned.flavour << " " << pinned.function;
  }
  EXPECT_EQ(0u, log.Count("Skip bpf prog"));
  EXPECT_EQ(0u, log.Count("Attach tracepoint prog failed"));
  // Each was opened and tried, with the kprobe's own lines, whatever its flavour.
  EXPECT_EQ(6u, log.Count("[AttachKProbeProgram] Attach kprobe prog: enter: progName: ",
                          ANDROID_LOG_INFO));
  EXPECT_EQ(1u, log.Count("[AttachKProbeProgram] Attach kprobe prog: enter: progName: "
                          "enter_fd_install, functionName: fd_install"));
}

TEST(Attach, OnTheRunningKernelWhatTheKernelOffersAttaches) {
  kavo::test::RunInNamespace([] {
    std::string loaded;
    if (!LoadKernelSide({}, &loaded)) return;
    ExpectWhatWasPinnedAttaches(loaded);
  });
}

// The kprobes forced: where the kernel has no kprobes each one's attach
// failure is logged and counted, as before there were trampoline twins.
TEST(Attach, ForcedKprobesAttachOnlyWhereTheKernelHasKprobes) {
  kavo::test::RunInNamespace([] {
    std::string loaded;
    if (!LoadKernelSide({"--probe-flavour", "kprobe"}, &loaded)) return;
    for (const auto& [set, program] : KprobePrograms()) {
      kavo::test::PinnedProbe pinned = kavo::test::PinnedProbeOf(loaded, set, program);
      EXPECT_EQ("kprobe", pinned.flavour) << program;
      if (!kavo::test::KprobesAvailable()) {
        EXPECT_FALSE(kavo::test::PinnedProbeAttaches(pinned)) << program;
      }
    }
    ExpectWhatWasPinnedAttaches(loaded);
  });
}

// The service as the platform starts it attaches all twelve programs, where
// the kernel takes kprobes or, in their place, the trampoline twins.
TEST(Attach, TheServiceAttachesAllTwelvePrograms) {
  kavo::test::RunInNamespace([] {
    std::string loaded;
    if (!LoadKernelSide({}, &loaded)) return;
    std::string refused;
    for (const auto& [set, program] : KprobePrograms()) {
      kavo::test::PinnedProbe pinned = kavo::test::PinnedProbeOf(loaded, set, program);
      if (kavo::test::PinnedProbeAttaches(pinned)) continue;
      refused += program + " (" +
                 (pinned.noTrampoline.empty() ? "no kprobe on " + pinned.function
                                              : "no kprobes, and " + pinned.noTrampoline) +
                 ") ";
    }
    if (!refused.empty()) {
      KAVO_KERNEL_FEATURE_SKIP("trampolines", "it takes neither a kprobe nor a trampoline for: " + refused);
    }

    kavo::test::LogCapture log;
    std::string why;
    KavoBpfService* service = kavo::test::StartServiceOnPinnedKernelSide(&why);
    ASSERT_NE(nullptr, service) << why;
    EXPECT_EQ(12u, log.Count("Attach bpf prog start: ", ANDROID_LOG_INFO));
    for (const char* failure : {"Attach tracepoint prog failed", "Attach kprobe prog failed",
                                "Attach kretprobe prog failed", "Attach all kavo bpf error",
                                "Retrieve"}) {
      EXPECT_EQ(0u, log.Count(failure)) << failure;
    }
    service->stop();
    EXPECT_EQ(0, service->Wait());
  });
}

// What the loader pins in a kprobe's place where the kernel takes trampolines
// is a tracing program; the service attaches such a program through a BPF
// link, on either attach path, and keeps it attached. A tracing program on a
// raw tracepoint stands in for the twin here, since it attaches the same way
// on any kernel with BTF.
TEST(Attach, ATracingProgramInAKprobesPlaceIsAttachedThroughALink) {
  kavo::test::RunInNamespace([] {
    std::string loaded;
    if (!LoadKernelSide({}, &loaded)) return;
    android::base::SetProperty("ro.kernel.version", kavo::test::RunningKernelVersion());
    const std::string pins = KavoBpfService::BPF_FS_PATH + "/prog_";
    const std::string counter = KavoBpfService::BPF_FS_PATH + "/map_test_fork_counter";
    std::string why;
    if (!kavo::test::PinTracingProgram(pins + "KavoBpfDefineset_kprobe_enter_fd_install", counter,
                                       getpid(), &why) ||
        !kavo::test::PinUnattachableTracingProgram(pins + "KavoBpfGplDefineset_kprobe_dma_buf_vmap",
                                                   &why)) {
      KAVO_KERNEL_SKIP(why);
    }

    kavo::test::LogCapture log;
    EXPECT_EQ(0, AttachAllKavoBpfProgram(KavoBpfService::BPF_PROG_DIR,
                                         KavoBpfService::PROG_EVENT_MAP));
    EXPECT_EQ(1u, log.Count("[AttachKProbeProgram] Attach kprobe prog: enter: progName: "
                            "enter_fd_install, functionName: fd_install",
                            ANDROID_LOG_INFO));
    EXPECT_EQ(0u, log.Count("Attach kprobe prog failed"));
    // Attached, and it stays so: it counts this process's forks.
    kavo::test::ForkAndReapChildren(3);
    EXPECT_EQ(3, kavo::test::ReadControlWord(counter));

    // A tracing program no link can take fails like a kprobe, and counts.
    int otherFailures = 0;
    for (const char* probe : kDmaBufProbes) {
      if (strcmp(probe, "dma_buf_vmap") == 0) continue;
      otherFailures += kavo::test::PinnedProbeAttaches(
                           kavo::test::PinnedProbeOf(loaded, "KavoBpfGplDefineset", probe))
                           ? 0
                           : 1;
    }
    EXPECT_EQ(1 + otherFailures, AttachAllKavoBpfProgram(KavoBpfService::BPF_PROG_DIR,
                                                         KavoBpfService::PROG_GPL_EVENT_MAP));
    EXPECT_EQ(1u, log.Count("Attach kprobe prog failed: KavoBpfGplDefineset, progname: "
                            "dma_buf_vmap, msg: ",
                            ANDROID_LOG_ERROR));

    // The directory walk takes the same road: a second link, so each fork
    // now counts twice.
    log.Clear();
    AttachAllKavoBpfProgram(KavoBpfService::BPF_PROG_DIR);
    EXPECT_EQ(1u, log.Count("[AttachKProbeProgram] Attach kprobe prog: enter: eventType: "
                            "enter_fd_install, eventName: fd_install"));
    EXPECT_EQ(0u, log.Count("Attach kprobe prog failed: KavoBpfDefineset, type: enter_fd_install"));
    kavo::test::ForkAndReapChildren(2);
    EXPECT_EQ(3 + 2 * 2, kavo::test::ReadControlWord(counter));
  });
}

// ---- What the attached programs write -----------------------------------

// A child that waits for the word, then grows by a megabyte, runs a thread to
// its end, optionally moves into a cgroup, and exits.
class Child {
 public:
  explicit Child(const std::string& cgroupProcs) {
    int go[2];
    EXPECT_EQ(0, pipe(go));
    pid_ = fork();
    if (pid_ == 0) {
      close(go[1]);
      char byte;
      if (read(go[0], &byte, 1) != 1) _exit(1);
      // Touched page by page through a volatile pointer: no compiler may skip it.
      constexpr size_t kGrowth = 1 << 20;
      void* memory =
          mmap(nullptr, kGrowth, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
      if (memory == MAP_FAILED) _exit(1);
      volatile char* bytes = static_cast<volatile char*>(memory);
      for (size_t at = 0; at < kGrowth; at += 4096) bytes[at] = 1;
      pthread_t thread;
      pthread_create(
          &thread, nullptr, [](void*) -> void* { return nullptr; }, nullptr);
      pthread_join(thread, nullptr);
      if (!cgroupProcs.empty()) kavo::test::WriteFile(cgroupProcs, std::to_string(getpid()));
      _exit(0);
    }
    close(go[0]);
    go_ = go[1];
  }
  pid_t pid() const { return pid_; }
  // Lets it run and reaps it; true when it exited 0.
  bool Run() {
    EXPECT_EQ(1, write(go_, "g", 1));
    close(go_);
    int status = 0;
    waitpid(pid_, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
  }

 private:
  pid_t pid_ = -1;
  int go_ = -1;
};

uint64_t BootNs() {
  struct timespec now;
  clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000ull + static_cast<uint64_t>(now.tv_nsec);
}

template <typename T>
std::vector<T> RecordsOf(const std::vector<std::string>& ring, uint32_t type, pid_t pid) {
  std::vector<T> found;
  for (const std::string& raw : ring) {
    if (raw.size() < sizeof(T)) continue;
    T record;
    memcpy(&record, raw.data(), sizeof(T));
    if (record.header.type == type && record.pid == pid) found.push_back(record);
  }
  return found;
}

// A fresh cgroup-v2 directory (the hierarchy mounted inside the test's
// mount namespace), removed again by the destructor.
struct TestCgroup {
  std::string dir;
  TestCgroup() {
    mkdir("/mnt/cgroup2", 0755);
    if (mount("cgroup2", "/mnt/cgroup2", "cgroup2", 0, nullptr) != 0) return;
    std::string path = "/mnt/cgroup2/kavo-test-" + std::to_string(getpid());
    if (mkdir(path.c_str(), 0755) == 0) dir = path;
  }
  ~TestCgroup() {
    if (!dir.empty()) rmdir(dir.c_str());
  }
};

TEST(Attach, ProgramsWriteTheirRecordsOnlyWhileSwitchedOn) {
  kavo::test::RunInNamespace([] {
    if (!LoadKernelSide({"--ring-size", "16777216"})) return;
    android::base::SetProperty("ro.kernel.version", kavo::test::RunningKernelVersion());
    AttachAllKavoBpfProgram(KavoBpfService::BPF_PROG_DIR, KavoBpfService::PROG_EVENT_MAP);
    AttachAllKavoBpfProgram(KavoBpfService::BPF_PROG_DIR, KavoBpfService::PROG_GPL_EVENT_MAP);
    const std::string ring0 = KavoBpfService::RINGBUF_MAP_PATH[0];
    const std::string ring1 = KavoBpfService::RINGBUF_MAP_PATH[1];

    // Producers off: a child comes and goes unseen.
    Child unseen("");
    ASSERT_TRUE(unseen.Run());
    EXPECT_TRUE(RecordsOf<kavo_fork_event>(kavo::test::DrainRing(ring0), KAVO_EVENT_TASK_CREATE,
                                           unseen.pid())
                    .empty());

    // Core producers only: its birth and death, not its memory.
    ASSERT_TRUE(kavo::test::WriteControlWord(KavoBpfService::RINGBUF_STATUS_PATH[0],
                                             KAVO_RING_CORE_ENABLED_BIT));
    Child coreOnly("");
    ASSERT_TRUE(coreOnly.Run());
    auto seen = kavo::test::DrainRing(ring0);
    EXPECT_EQ(2u, RecordsOf<kavo_fork_event>(seen, KAVO_EVENT_TASK_CREATE, coreOnly.pid()).size());
    EXPECT_EQ(2u, RecordsOf<kavo_exit_event>(seen, KAVO_EVENT_TASK_EXIT, coreOnly.pid()).size());
    EXPECT_TRUE(RecordsOf<kavo_rss_event>(seen, KAVO_EVENT_RSS_STAT, coreOnly.pid()).empty());

    // Everything on, in both rings.
    TestCgroup cgroup;
    ASSERT_FALSE(cgroup.dir.empty()) << "cannot make a cgroup-v2 directory";
    ASSERT_TRUE(
        kavo::test::WriteControlWord(KavoBpfService::RINGBUF_STATUS_PATH[0], kAllProducers));
    ASSERT_TRUE(
        kavo::test::WriteControlWord(KavoBpfService::RINGBUF_STATUS_PATH[1], kAllProducers));
    uint64_t before = BootNs();
    Child child(cgroup.dir + "/cgroup.procs");
    ASSERT_TRUE(child.Run());
    uint64_t after = BootNs();
    auto records0 = kavo::test::DrainRing(ring0);
    auto records1 = kavo::test::DrainRing(ring1);
    pid_t pid = child.pid();

    auto forks = RecordsOf<kavo_fork_event>(records0, KAVO_EVENT_TASK_CREATE, pid);
    ASSERT_EQ(2u, forks.size()) << "the process, then its thread";
    EXPECT_EQ(static_cast<uint32_t>(KAVO_TASK_PROCESS), forks[0].kind);
    EXPECT_EQ(getpid(), forks[0].ppid);
    EXPECT_EQ(0, forks[0].uid);
    EXPECT_STREQ(std::string(program_invocation_short_name).substr(0, 15).c_str(), forks[0].comm);
    EXPECT_GE(forks[0].header.time_ns, before);
    EXPECT_LE(forks[0].header.time_ns, after);
    EXPECT_EQ(static_cast<uint32_t>(KAVO_TASK_THREAD), forks[1].kind)
        << "the thread belongs to the child";
    EXPECT_EQ(getpid(), forks[1].ppid);

    auto exits = RecordsOf<kavo_exit_event>(records0, KAVO_EVENT_TASK_EXIT, pid);
    ASSERT_EQ(2u, exits.size()) << "the thread, then the process";
    EXPECT_EQ(static_cast<uint32_t>(KAVO_TASK_THREAD), exits[0].kind);
    EXPECT_EQ(static_cast<uint32_t>(KAVO_TASK_PROCESS), exits[1].kind);
    EXPECT_LE(forks[0].header.time_ns, exits[1].header.time_ns);

    auto rss = RecordsOf<kavo_rss_event>(records0, KAVO_EVENT_RSS_STAT, pid);
    int64_t largestAnon = 0;
    for (const kavo_rss_event& r : rss) {
      EXPECT_GE(r.member, 0);
      EXPECT_LT(r.member, KAVO_RSS_MEMBERS);
      if (r.member == KAVO_RSS_ANON) largestAnon = std::max<int64_t>(largestAnon, r.size);
    }
    EXPECT_GE(largestAnon, 1 << 20) << "the megabyte it touched, in bytes";

    // Ring 1: the cgroup move; exits are ring 0's alone.
    auto moves = RecordsOf<kavo_cgroup_attach_event>(records1, KAVO_EVENT_CGROUP_ATTACH, pid);
    ASSERT_EQ(1u, moves.size());
    EXPECT_NE(std::string::npos, cgroup.dir.find(moves[0].dst_path)) << moves[0].dst_path;
    EXPECT_STREQ(forks[0].comm, moves[0].comm);
    for (const std::string& raw : records1) {
      uint32_t type;
      memcpy(&type, raw.data(), sizeof(type));
      EXPECT_NE(static_cast<uint32_t>(KAVO_EVENT_TASK_EXIT), type);
    }
  });
}

// A process that held dma-bufs ends: the GPL set forgets it and says so;
// the base set drops its descriptor count.
TEST(Attach, AnEndedProcessLeavesThePerProcessMaps) {
  kavo::test::RunInNamespace([] {
    if (!LoadKernelSide({"--ring-size", "16777216"})) return;
    android::base::SetProperty("ro.kernel.version", kavo::test::RunningKernelVersion());
    AttachAllKavoBpfProgram(KavoBpfService::BPF_PROG_DIR, KavoBpfService::PROG_EVENT_MAP);
    AttachAllKavoBpfProgram(KavoBpfService::BPF_PROG_DIR, KavoBpfService::PROG_GPL_EVENT_MAP);
    ASSERT_TRUE(
        kavo::test::WriteControlWord(KavoBpfService::RINGBUF_STATUS_PATH[1], kAllProducers));
    const std::string gpl = KavoBpfService::BPF_FS_PATH + "/map_KavoBpfGplDefineset_";
    android::base::unique_fd perProcess(bpf_obj_get((gpl + "dmabuf_perprocess_size_map").c_str()));
    android::base::unique_fd charged(bpf_obj_get((gpl + "dmabuf_size_map").c_str()));
    android::base::unique_fd uses(
        bpf_obj_get(KavoBpfService::DMABUF_BPF_PROCESS_INODE_MAP_PATH.c_str()));
    android::base::unique_fd fds(bpf_obj_get(
        (KavoBpfService::BPF_FS_PATH + "/map_KavoBpfDefineset_open_fd_caller_map").c_str()));
    ASSERT_GE(perProcess.get(), 0);

    Child holder("");
    Child plain("");
    int32_t pid = holder.pid();
    dmabuf_stat stat = {8192, 0};
    ASSERT_EQ(0, bpf_map_update_elem(perProcess.get(), &pid, &stat, BPF_ANY));
    ASSERT_EQ(0, bpf_map_update_elem(charged.get(), &pid, &stat, BPF_ANY));
    kavo_process_inode_key key = {pid, 0, 4711};
    kavo_process_inode_info use = {1, 0, 8192};
    ASSERT_EQ(0, bpf_map_update_elem(uses.get(), &key, &use, BPF_ANY));
    kavo_fd_info fdInfo = {};
    fdInfo.pid = pid;
    fdInfo.fd_count = 3;
    ASSERT_EQ(0, bpf_map_update_elem(fds.get(), &pid, &fdInfo, BPF_ANY));

    ASSERT_TRUE(holder.Run());
    ASSERT_TRUE(plain.Run());
    auto records = kavo::test::DrainRing(KavoBpfService::RINGBUF_MAP_PATH[1]);
    auto ends = RecordsOf<kavo_dmabuf_update_event>(records, KAVO_EVENT_DMABUF_UPDATE, pid);
    ASSERT_EQ(1u, ends.size());
    EXPECT_EQ(static_cast<uint32_t>(KAVO_DMABUF_PROCESS_EXIT), ends[0].action);
    EXPECT_EQ(8192, ends[0].size);
    EXPECT_EQ(0, ends[0].process_total);
    EXPECT_TRUE(
        RecordsOf<kavo_dmabuf_update_event>(records, KAVO_EVENT_DMABUF_UPDATE, plain.pid()).empty())
        << "a process without dma-bufs ends silently";

    EXPECT_NE(0, bpf_map_lookup_elem(perProcess.get(), &pid, &stat));
    EXPECT_NE(0, bpf_map_lookup_elem(charged.get(), &pid, &stat));
    EXPECT_NE(0, bpf_map_lookup_elem(uses.get(), &key, &use));
    EXPECT_NE(0, bpf_map_lookup_elem(fds.get(), &pid, &fdInfo));
  });
}

}  // namespace
