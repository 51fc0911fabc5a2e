// The kernel side on the running kernel: what kavobpf_loader pins and
// refuses, which flavour it pins in each kprobe's place, the catalogue as the
// service attaches it (and skips it on 5.15), what the programs write while
// switched on, and the ring monitors on real rings.

#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <android/log.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "bpf/kavo_bpf_programs.h"
#include "bpf/kavo_bpf_records.h"
#include "kavobpf_probe_flavour.h"
#include "service/kavo_bpf_ring_wakeup.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_state.h"
#include "support/event_sink.h"
#include "support/harness.h"
#include "support/kernel.h"
#include "support/kernel_stand_ins.h"
#include "support/log_capture.h"
#include "support/processes.h"
#include "support/wait_until.h"

namespace {

using namespace std::chrono_literals;
using Kavo::Bpf::AttachAllKavoBpfProgram;
using Kavo::Bpf::KavoBpfService;
using namespace kavo::test;

constexpr int64_t kProducersOn = KAVO_RING_CORE_ENABLED_BIT | KAVO_RING_NORMAL_ENABLED_BIT;
const std::vector<std::pair<std::string, std::string>> kKprobes = {
    {"KavoBpfDefineset", "enter_fd_install"},       {"KavoBpfGplDefineset", "dma_buf_file_release"},
    {"KavoBpfGplDefineset", "dma_buf_stats_setup"}, {"KavoBpfGplDefineset", "dma_buf_dynamic_attach"},
    {"KavoBpfGplDefineset", "dma_buf_vmap"},        {"KavoBpfGplDefineset", "dma_buf_mmap_internal"}};

// Kprobe programs of |set| (but |except|) that the kernel will not attach as
// the loader pinned them (|loaded| is its output).
int Unattachable(const std::string& loaded, const std::string& set, const std::string& except = "") {
  int count = 0;
  for (const auto& [s, program] : kKprobes) {
    const bool attaches = kavo::test::PinnedProbeAttaches(kavo::test::PinnedProbeOf(loaded, s, program));
    count += s == set && program != except && !attaches;
  }
  return count;
}

// Loads the kernel side with |args|; false when the test cannot go on.
bool Load(const std::vector<std::string>& args = {}, std::string* output = nullptr) {
  std::string why;
  if (!kavo::test::BpfAvailable(&why)) [&] { KAVO_KERNEL_SKIP(why); }();
  if (testing::Test::IsSkipped() || testing::Test::HasFailure()) return false;
  bool loaded = kavo::test::LoadKernelSide(&why, args, output);
  EXPECT_TRUE(loaded) << why;
  return loaded;
}

TEST(Loader, PinsEverythingRefusesWhatIsWrongInOneLineAndCleansUp) {
  kavo::test::RunInNamespace([] {
    std::vector<std::vector<std::string>> bad = {{"--ring-size"}, {"--probe-flavour"}, {"--bogus"}, {"stray"},
                                                 {"--probe-flavour", "fentry"}, {"--probe-flavour", "KPROBE"}};
    // Ring sizes: a power of two of at least a page, at most 2 GiB.
    for (const char* size : {"2048", "4095", "12288", "0", "-4096", "4k", "", "4294967296"}) bad.push_back({"--ring-size", size});
    for (std::vector<std::string>& args : bad) {
      args.insert(args.begin(), ToolPath("kavobpf_loader"));
      auto result = RunCommand(args);
      EXPECT_EQ(2, result.exitCode) << args.back() << ": " << result.output;
      EXPECT_EQ(1u, kavo::test::Occurrences(result.output, "\n")) << result.output;
      EXPECT_TRUE(args[1] != "--ring-size" || result.output.find("--ring-size") != std::string::npos) << result.output;
    }
    if (!Load({"--ring-size", "4096"})) return;
    for (const std::string& path : kavo::test::LoaderPins()) EXPECT_TRUE(PathExists(path)) << path;
    for (const std::string& ring : KavoBpfService::RINGBUF_MAP_PATH) {
      struct bpf_map_info info = {};
      __u32 length = sizeof(info);
      android::base::unique_fd fd(bpf_obj_get(ring.c_str()));
      EXPECT_TRUE(bpf_obj_get_info_by_fd(fd.get(), &info, &length) == 0 && info.max_entries == 4096u) << ring;
    }
    // Again with the default: the pins are replaced, not refused. One line
    // per kprobe program, and the summary.
    std::string output;
    ASSERT_TRUE(Load({}, &output));
    EXPECT_EQ(kKprobes.size() + 1, kavo::test::Occurrences(output, "\n")) << output;

    EXPECT_EQ(0, RunCommand({ToolPath("kavobpf_loader"), "--unload"}).exitCode);
    EXPECT_FALSE(PathExists(KavoBpfService::BPF_FS_PATH));
    EXPECT_EQ(0, RunCommand({ToolPath("kavobpf_loader"), "--unload"}).exitCode) << "nothing to unload is fine";

    // Root without the capabilities loading takes: the set refused, nothing pinned.
    auto refused = RunCommand({"setpriv", "--inh-caps=-all", "--bounding-set=-bpf,-sys_admin,-perfmon", ToolPath("kavobpf_loader")});
    EXPECT_EQ(1, refused.exitCode);
    EXPECT_NE(std::string::npos, refused.output.find("kavobpf_loader: the kernel refused KavoBpfDefineset: Operation not permitted "
                                                     "(needs root, or CAP_BPF and CAP_PERFMON)")) << refused.output;
    for (const std::string& path : kavo::test::LoaderPins()) EXPECT_FALSE(PathExists(path)) << path;
    ASSERT_EQ(0, mount("tmpfs", "/sys/fs/bpf", "tmpfs", 0, nullptr));
    auto noBpffs = RunCommand({ToolPath("kavobpf_loader")});
    EXPECT_EQ(1, noBpffs.exitCode);
    EXPECT_EQ(0u, noBpffs.output.find("kavobpf_loader: no BPF file system mounted at /sys/fs/bpf")) << noBpffs.output;
    EXPECT_EQ(1u, kavo::test::Occurrences(noBpffs.output, "\n")) << noBpffs.output;
  });
}

// The real objects' programs, as the loader's choice takes them.
std::vector<kavo::loader::ProgramSection> ObjectPrograms(size_t set) {
  std::vector<kavo::loader::ProgramSection> sections;
  struct kavo_bpf_object_image image = kavo_bpf_object_image(set);
  struct bpf_object* object = bpf_object__open_mem(image.data, image.size, nullptr);
  struct bpf_program* prog;
  bpf_object__for_each_program(prog, object) sections.push_back({bpf_program__name(prog), bpf_program__section_name(prog)});
  bpf_object__close(object);
  return sections;
}

// "<chosen> <flavour> <function>[ <why>]" of |program| on a kernel that
// refuses trampolines on |refused|.
std::string Choose(size_t set, const std::string& program, kavo::loader::ProbeFlavour flavour, bool kprobes,
                   const std::vector<std::string>& refused = {}, int* asked = nullptr) {
  auto loads = [&](const std::string& kind, const std::string& function, std::string* why) {
    if (asked != nullptr) ++*asked;
    bool no = std::count(refused.begin(), refused.end(), function) > 0;
    if (no) *why = kind + " on " + function + " refused";
    return !no;
  };
  std::vector<kavo::loader::ProbeChoice> choices;
  std::string error;
  EXPECT_TRUE(kavo::loader::ChooseProbePrograms(ObjectPrograms(set), flavour, kprobes, loads, &choices, &error)) << error;
  for (const auto& c : choices) {
    if (c.program == program) return c.chosen + " " + c.flavour + " " + c.function + (c.why.empty() ? "" : " " + c.why);
  }
  return "";
}

TEST(Loader, PinsKprobesWhereTheKernelHasThemAndTrampolineTwinsElsewhere) {
  using kavo::loader::ProbeFlavour;
  int asked = 0;  // with kprobes, trampolines are never tried
  EXPECT_EQ("enter_fd_install kprobe fd_install", Choose(0, "enter_fd_install", ProbeFlavour::kAuto, true, {}, &asked));
  EXPECT_EQ("dma_buf_vmap kprobe dma_buf_vmap", Choose(1, "dma_buf_vmap", ProbeFlavour::kAuto, true, {}, &asked));
  EXPECT_EQ("enter_fd_install kprobe fd_install", Choose(0, "enter_fd_install", ProbeFlavour::kKprobe, false, {}, &asked));
  EXPECT_EQ(0, asked);
  EXPECT_EQ("enter_fd_install__fentry fentry fd_install", Choose(0, "enter_fd_install", ProbeFlavour::kAuto, false));
  EXPECT_EQ("enter_fd_install__fentry fentry fd_install", Choose(0, "enter_fd_install", ProbeFlavour::kTrampoline, true));
  EXPECT_EQ("dma_buf_stats_setup__export fexit dma_buf_export",
            Choose(1, "dma_buf_stats_setup", ProbeFlavour::kAuto, false, {"dma_buf_stats_setup"}));
  EXPECT_EQ(
      "dma_buf_stats_setup kprobe dma_buf_stats_setup fentry on dma_buf_stats_setup refused; fexit on "
      "dma_buf_export refused",
      Choose(1, "dma_buf_stats_setup", ProbeFlavour::kAuto, false, {"dma_buf_stats_setup", "dma_buf_export"}));
  std::vector<kavo::loader::ProbeChoice> choices;
  std::string error;
  EXPECT_FALSE(kavo::loader::ChooseProbePrograms(
      {{"enter_fd_install", "kprobe/fd_install"}, {"fd_instal__fentry", "fentry/fd_install"}}, ProbeFlavour::kAuto,
      false, [](const std::string&, const std::string&, std::string*) { return true; }, &choices, &error));
  EXPECT_NE(std::string::npos, error.find("fd_instal__fentry")) << "a twin of nothing is a build mistake";
}

// Whatever the loader pinned, the service attaches what the kernel takes and
// logs and counts the rest under its kprobe's name; on 5.15 the dma-buf
// probes (6.1+) are skipped; a program the kernel will not attach where the
// catalogue says is one failure, and the service runs with the others.
TEST(Catalogue, AttachedOnTheRunningKernelAndAt515) {
  kavo::test::RunInNamespace([] {
    std::string loaded;
    if (!Load({"--probe-flavour", "kprobe"}, &loaded)) return;
    kavo::test::LogCapture log;
    android::base::SetProperty("ro.kernel.version", "5.15");
    EXPECT_EQ(Unattachable(loaded, "KavoBpfDefineset"),
              AttachAllKavoBpfProgram(KavoBpfService::BPF_PROG_DIR, KavoBpfService::PROG_EVENT_MAP));
    EXPECT_EQ(0, AttachAllKavoBpfProgram(KavoBpfService::BPF_PROG_DIR, KavoBpfService::PROG_GPL_EVENT_MAP));
    for (size_t i = 1; i < kKprobes.size(); ++i)
      EXPECT_EQ(1u, log.Count("Skip bpf prog: KavoBpfGplDefineset, progName: " + kKprobes[i].second + ", kernelCompat: 6.1+", ANDROID_LOG_WARN));
    EXPECT_EQ(5u, log.Count("Skip bpf prog"));
    EXPECT_EQ(7u, log.Count("Attach bpf prog start:")) << "five base programs and the two GPL tracepoints";

    ASSERT_TRUE(Load({}, &loaded));
    const std::string switchPin = KavoBpfService::BPF_FS_PATH + "/prog_KavoBpfDefineset_tracepoint_sched_sched_switch";
    std::string why;
    ASSERT_TRUE(kavo::test::PinForeignProgram(switchPin, &why)) << why;
    log.Clear();
    KavoBpfService* service = kavo::test::StartServiceOnPinnedKernelSide(&why);
    ASSERT_NE(nullptr, service) << why;
    for (const auto& [set, program] : kKprobes) {
      EXPECT_EQ(kavo::test::PinnedProbeAttaches(kavo::test::PinnedProbeOf(loaded, set, program)) ? 0u : 1u,
                log.Count("Attach kprobe prog failed: " + set + ", progname: " + program + ", msg: ", ANDROID_LOG_ERROR))
          << program;
    }
    EXPECT_EQ(1u, log.Count("Attach tracepoint prog failed: KavoBpfDefineset, type: sched_sched_switch, msg: ", ANDROID_LOG_ERROR));
    EXPECT_TRUE(log.WaitFor("[KavoBpfService][eventProduceThread] Attach all kavo bpf error: " +
                            std::to_string(1 + Unattachable(loaded, "KavoBpfDefineset"))));
    const int gplFailures = Unattachable(loaded, "KavoBpfGplDefineset");
    EXPECT_TRUE(gplFailures == 0 || log.WaitFor("[KavoBpfService][gpleventProduceThread] Attach all kavo bpf error: " +
                                                std::to_string(gplFailures)));
    kavo::test::EventSink client({KAVO_EVENT_TASK_CREATE});
    const pid_t child = kavo::test::ForkAndReap();
    EXPECT_TRUE(WaitUntil([&] {
      for (const std::string& r : client.Drain()) if (kavo::test::RecordAs<kavo_fork_event>(r).pid == child) return true;
      return false;
    })) << "the fork program beside the refused one";
    service->stop();
    EXPECT_EQ(0, service->Wait());
    // Where the kernel takes kprobes, or trampolines on the catalogue's
    // functions, all twelve programs attach: no failure but the foreign pin.
    const int unattached = Unattachable(loaded, "KavoBpfDefineset") + gplFailures;
    if (unattached != 0) {
      KAVO_KERNEL_FEATURE_SKIP("trampolines", std::to_string(unattached) +
                                                  " kprobe programs attach neither as kprobes nor as trampolines");
    }
  });
}

// What the loader pins in a kprobe's place where the kernel takes trampolines
// is a tracing program, attached through a BPF link on either attach path.
// A tracing program on a raw tracepoint stands in for the twin: it attaches
// the same way on any kernel with BTF, and counts this process's forks.
TEST(Catalogue, ATracingProgramInAKprobesPlaceIsAttachedThroughALink) {
  kavo::test::RunInNamespace([] {
    std::string loaded, why;
    if (!Load({}, &loaded)) return;
    android::base::SetProperty("ro.kernel.version", kavo::test::RunningKernelVersion());
    const std::string pins = KavoBpfService::BPF_FS_PATH + "/prog_";
    const std::string counter = KavoBpfService::BPF_FS_PATH + "/map_test_fork_counter";
    if (!kavo::test::PinTracingProgram(pins + "KavoBpfDefineset_kprobe_enter_fd_install", counter, getpid(), &why) ||
        !kavo::test::PinUnattachableTracingProgram(pins + "KavoBpfGplDefineset_kprobe_dma_buf_vmap", &why)) {
      KAVO_KERNEL_SKIP(why);
    }
    kavo::test::LogCapture log;
    EXPECT_EQ(0, AttachAllKavoBpfProgram(KavoBpfService::BPF_PROG_DIR, KavoBpfService::PROG_EVENT_MAP));
    for (int i = 0; i < 3; ++i) kavo::test::ForkAndReap();
    EXPECT_EQ(3, ReadControlWord(counter));
    EXPECT_EQ(1 + Unattachable(loaded, "KavoBpfGplDefineset", "dma_buf_vmap"),
              AttachAllKavoBpfProgram(KavoBpfService::BPF_PROG_DIR, KavoBpfService::PROG_GPL_EVENT_MAP));
    EXPECT_EQ(1u, log.Count("Attach kprobe prog failed: KavoBpfGplDefineset, progname: dma_buf_vmap, msg: "));
    // The directory walk: a second link, so each fork now counts twice.
    log.Clear();
    AttachAllKavoBpfProgram(KavoBpfService::BPF_PROG_DIR);
    EXPECT_EQ(1u, log.Count("[AttachKProbeProgram] Attach kprobe prog: enter: eventType: enter_fd_install, eventName: fd_install"));
    for (int i = 0; i < 2; ++i) kavo::test::ForkAndReap();
    EXPECT_EQ(3 + 2 * 2, ReadControlWord(counter));
  });
}

// A child that grows by a megabyte, runs a thread to its end, moves into
// |cgroupProcs| when given, and exits.
pid_t RunChild(const std::string& cgroupProcs = "") {
  pid_t pid = fork();
  if (pid == 0) {
    constexpr size_t kGrowth = 1 << 20;
    void* memory = mmap(nullptr, kGrowth, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) _exit(1);
    for (size_t at = 0; at < kGrowth; at += 4096) static_cast<volatile char*>(memory)[at] = 1;
    pthread_t thread;
    pthread_create(&thread, nullptr, [](void*) -> void* { return nullptr; }, nullptr);
    pthread_join(thread, nullptr);
    if (!cgroupProcs.empty()) kavo::test::WriteFile(cgroupProcs, std::to_string(getpid()));
    _exit(0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  return pid;
}

template <typename T>
std::vector<T> RecordsOf(const std::vector<std::string>& ring, uint32_t type, pid_t pid) {
  std::vector<T> found;
  for (const std::string& raw : ring) {
    T record = kavo::test::RecordAs<T>(raw);
    if (raw.size() >= sizeof(T) && record.header.type == type && record.pid == pid) found.push_back(record);
  }
  return found;
}

// Which records the programs write while each ring's producers are switched
// on, in which ring and order. (What a fork and an exit record carry, and the
// sizes of memory records, the client library's story checks on the kernel.)
TEST(KernelRecords, ProgramsWriteForksExitsMemoryAndMovesOnlyWhileSwitchedOn) {
  kavo::test::RunInNamespace([] {
    if (!Load({"--ring-size", "16777216"})) return;
    android::base::SetProperty("ro.kernel.version", kavo::test::RunningKernelVersion());
    AttachAllKavoBpfProgram(KavoBpfService::BPF_PROG_DIR, KavoBpfService::PROG_EVENT_MAP);
    AttachAllKavoBpfProgram(KavoBpfService::BPF_PROG_DIR, KavoBpfService::PROG_GPL_EVENT_MAP);
    const std::string ring0 = KavoBpfService::RINGBUF_MAP_PATH[0], ring1 = KavoBpfService::RINGBUF_MAP_PATH[1];
    pid_t unseen = RunChild();
    EXPECT_TRUE(RecordsOf<kavo_fork_event>(kavo::test::DrainRing(ring0), KAVO_EVENT_TASK_CREATE, unseen).empty());
    // Core producers only: birth and death, not memory.
    ASSERT_TRUE(kavo::test::WriteControlWord(KavoBpfService::RINGBUF_STATUS_PATH[0], KAVO_RING_CORE_ENABLED_BIT));
    pid_t core = RunChild();
    auto seen = kavo::test::DrainRing(ring0);
    EXPECT_EQ(2u, RecordsOf<kavo_fork_event>(seen, KAVO_EVENT_TASK_CREATE, core).size());
    EXPECT_EQ(2u, RecordsOf<kavo_exit_event>(seen, KAVO_EVENT_TASK_EXIT, core).size());
    EXPECT_TRUE(RecordsOf<kavo_rss_event>(seen, KAVO_EVENT_RSS_STAT, core).empty());

    // Everything on, in both rings; the child moves into a cgroup-v2 directory.
    mkdir("/mnt/cgroup2", 0755);
    ASSERT_EQ(0, mount("cgroup2", "/mnt/cgroup2", "cgroup2", 0, nullptr));
    const std::string cgroup = "/mnt/cgroup2/kavo-test-" + std::to_string(getpid());
    ASSERT_EQ(0, mkdir(cgroup.c_str(), 0755));
    for (const std::string& status : KavoBpfService::RINGBUF_STATUS_PATH)
      ASSERT_TRUE(kavo::test::WriteControlWord(status, kProducersOn));
    const uint64_t before = Kavo::Bpf::ClockNs(CLOCK_BOOTTIME);
    const pid_t pid = RunChild(cgroup + "/cgroup.procs");
    rmdir(cgroup.c_str());
    auto records0 = kavo::test::DrainRing(ring0), records1 = kavo::test::DrainRing(ring1);
    auto forks = RecordsOf<kavo_fork_event>(records0, KAVO_EVENT_TASK_CREATE, pid);
    ASSERT_EQ(2u, forks.size()) << "the process, then its thread";
    EXPECT_EQ(std::make_tuple(uint32_t{KAVO_TASK_PROCESS}, uint32_t{KAVO_TASK_THREAD}, getpid()),
              std::make_tuple(forks[0].kind, forks[1].kind, forks[1].ppid));
    EXPECT_GE(forks[0].header.time_ns, before);
    auto exits = RecordsOf<kavo_exit_event>(records0, KAVO_EVENT_TASK_EXIT, pid);
    ASSERT_EQ(2u, exits.size()) << "the thread, then the process";
    EXPECT_EQ(std::vector<uint32_t>({KAVO_TASK_THREAD, KAVO_TASK_PROCESS}), std::vector<uint32_t>({exits[0].kind, exits[1].kind}));
    EXPECT_LE(forks[0].header.time_ns, exits[1].header.time_ns);
    EXPECT_FALSE(RecordsOf<kavo_rss_event>(records0, KAVO_EVENT_RSS_STAT, pid).empty()) << "its memory grew";
    auto moves = RecordsOf<kavo_cgroup_attach_event>(records1, KAVO_EVENT_CGROUP_ATTACH, pid);
    ASSERT_EQ(1u, moves.size());
    EXPECT_NE(std::string::npos, cgroup.find(moves[0].dst_path)) << moves[0].dst_path;
    for (const std::string& raw : records1) EXPECT_NE(KAVO_EVENT_TASK_EXIT, kavo::test::RecordType(raw)) << "ring 0's alone";
  });
}

// The service on the real kernel (that each fork is counted is
// ProcessChurn's, that each process of a burst reaches a client once is
// EndToEnd's): a process that held dma-bufs ends, the GPL set forgets it and
// its end reaches the client; stop() ends both monitors (within 2 s, while
// they poll, is Kavobpfd's).
TEST(RingMonitor, DmabufEndsReachTheClientAndStopEndsBoth) {
  kavo::test::RunInNamespace([] {
    std::string why;
    if (!kavo::test::BpfAvailable(&why)) KAVO_KERNEL_SKIP(why);
    kavo::test::LogCapture log;
    KavoBpfService* service = kavo::test::StartServiceOnKernel(&why);
    ASSERT_NE(nullptr, service) << why;
    kavo::test::EventSink client({KAVO_EVENT_TASK_EXIT, KAVO_EVENT_DMABUF_UPDATE});
    std::set<pid_t> deaths;
    std::vector<kavo_dmabuf_update_event> ends;
    auto collect = [&] {
      for (const std::string& record : client.Drain()) {
        if (kavo::test::RecordType(record) == KAVO_EVENT_TASK_EXIT) {
          deaths.insert(kavo::test::RecordAs<kavo_exit_event>(record).pid);
        } else {
          ends.push_back(kavo::test::RecordAs<kavo_dmabuf_update_event>(record));
        }
      }
    };
    const std::string gpl = KavoBpfService::BPF_FS_PATH + "/map_KavoBpfGplDefineset_";
    android::base::unique_fd perProcess(bpf_obj_get((gpl + "dmabuf_perprocess_size_map").c_str()));
    android::base::unique_fd charged(bpf_obj_get((gpl + "dmabuf_size_map").c_str()));
    android::base::unique_fd uses(bpf_obj_get(KavoBpfService::DMABUF_BPF_PROCESS_INODE_MAP_PATH.c_str()));
    int go[2];
    ASSERT_EQ(0, pipe(go));
    pid_t holder = fork();
    if (holder == 0) {
      char byte;
      _exit(read(go[0], &byte, 1) == 1 ? 0 : 1);
    }
    dmabuf_stat stat = {8192, 0};
    kavo_process_inode_key key = {holder, 0, 4711};
    kavo_process_inode_info use = {1, 0, 8192};
    ASSERT_EQ(0, bpf_map_update_elem(perProcess.get(), &holder, &stat, BPF_ANY));
    ASSERT_EQ(0, bpf_map_update_elem(charged.get(), &holder, &stat, BPF_ANY));
    ASSERT_EQ(0, bpf_map_update_elem(uses.get(), &key, &use, BPF_ANY));
    ASSERT_EQ(1, write(go[1], "g", 1));
    waitpid(holder, nullptr, 0);
    const pid_t plain = kavo::test::ForkAndReap();
    ASSERT_TRUE(WaitUntil([&] { collect(); return deaths.count(plain) > 0 && !ends.empty(); }, 10s));
    EXPECT_EQ(0, std::count_if(ends.begin(), ends.end(), [&](auto& e) { return e.pid == plain; }))
        << "a process without dma-bufs ends silently";
    ASSERT_EQ(1u, ends.size());
    EXPECT_EQ(std::make_tuple(holder, static_cast<uint32_t>(KAVO_DMABUF_PROCESS_EXIT), int64_t(8192), int64_t(0)),
              std::make_tuple(ends[0].pid, ends[0].action, int64_t(ends[0].size), int64_t(ends[0].process_total)));
    EXPECT_NE(0, bpf_map_lookup_elem(perProcess.get(), &holder, &stat));
    EXPECT_NE(0, bpf_map_lookup_elem(charged.get(), &holder, &stat));
    EXPECT_NE(0, bpf_map_lookup_elem(uses.get(), &key, &use));

    service->stop();
    EXPECT_EQ(0, service->Wait());
    EXPECT_TRUE(log.Contains("[KavoBpfService][eventMonitor] Stop Event Produce Thread...", ANDROID_LOG_WARN));
    EXPECT_TRUE(log.Contains("[KavoBpfService][gpleventMonitor] Stop GPL Event Produce Thread...", ANDROID_LOG_WARN));
  });
}

// Poll failures end a monitor only when six come in a row; a good record
// (a dma-buf update, the last raw type) starts the count again; blocked in
// a poll without time limit, the monitor still ends at once on stop().
TEST(RingMonitor, SixPollFailuresInARowEndAMonitorFiveDoNot) {
  kavo::test::RunInNamespace([] {
    std::string why;
    if (!kavo::test::PinRingMaps(&why)) KAVO_KERNEL_SKIP(why);
    const std::string ring = KavoBpfService::RINGBUF_MAP_PATH[0];
    android::base::SetProperty("sys.kavo_bpf_ready", "0");  // the producer thread waits; the test runs the monitor
    ASSERT_TRUE(Kavo::Bpf::BpfServiceMain());
    KavoBpfService* service = KavoBpfService::GetInstance();
    kavo::test::LogCapture log;
    ASSERT_TRUE(kavo::test::WriteRingRecords(ring, KAVO_EVENT_RAW_MAX + 1, 6, &why)) << why;
    EXPECT_EQ(-1, service->eventMonitor());
    EXPECT_EQ(6u, log.Count("[KavoBpfService][eventMonitor] KAVOBPF: ret -1 .Error ring buf poll.", ANDROID_LOG_ERROR));
    EXPECT_EQ(6u, log.Count("handleEvent ERROR!!! Type: 8"));

    log.Clear();
    kavo::test::EventSink client({KAVO_EVENT_DMABUF_UPDATE});
    ASSERT_TRUE(kavo::test::WriteRingRecords(ring, KAVO_EVENT_RAW_MAX + 1, 5, &why)) << why;
    ASSERT_TRUE(kavo::test::WriteRingRecords(ring, KAVO_EVENT_DMABUF_UPDATE, 1, &why, sizeof(kavo_dmabuf_update_event)));
    auto monitor = std::async(std::launch::async, [service] { return service->eventMonitor(); });
    EXPECT_TRUE(WaitUntil([&] { return client.Drain().size() == 1; }, 15s));
    // The poll that delivered it reads on until the ring is empty: the next
    // bad record must come after it returned, as the poll counter shows.
    EXPECT_TRUE(WaitUntil([] { return Counted(Kavo::Bpf::KavoBpfDataState::kPollCounter) > 0; }));
    ASSERT_TRUE(kavo::test::WriteRingRecords(ring, KAVO_EVENT_RAW_MAX + 1, 1, &why)) << why;
    EXPECT_TRUE(log.WaitFor("Error ring buf poll", 6, 5s));
    EXPECT_EQ(std::future_status::timeout, monitor.wait_for(1500ms)) << "a sixth failure after a success";
    auto before = std::chrono::steady_clock::now();
    service->stop();
    ASSERT_EQ(std::future_status::ready, monitor.wait_for(2s));
    EXPECT_EQ(0, monitor.get());
    EXPECT_LT(std::chrono::steady_clock::now() - before, 1s);
    service->Wait();
  });
}

// Records of ring 0 as a consumer takes them: the pids of their forks.
int TakeFork(void* ctx, void* data, size_t size) {
  auto fork = kavo::test::RecordAs<kavo_fork_event>(std::string(static_cast<char*>(data), size));
  if (fork.header.type == KAVO_EVENT_TASK_CREATE) static_cast<std::vector<pid_t>*>(ctx)->push_back(fork.pid);
  return 0;
}

// The programs wake a consumer that waits, but not one that says it is awake,
// nor one that pauses after a burst.
TEST(RingMonitor, ProducersWakeAWaitingConsumerButNotOneThatIsAwake) {
  kavo::test::RunInNamespace([] {
    if (!Load()) return;
    ASSERT_GE(Kavo::Bpf::AttachTracepointProgram(KavoBpfService::BPF_PROG_DIR, "KavoBpfDefineset",
                                                 "sched_sched_process_fork", "sched", "sched_process_fork"), 0);
    ASSERT_TRUE(KavoBpfService::GetInstance()->enableCoreBpf(0, true));
    android::base::unique_fd ring(bpf_obj_get(KavoBpfService::RINGBUF_MAP_PATH[0].c_str()));
    std::vector<pid_t> taken;
    struct ring_buffer* consumer = ring_buffer__new(ring.get(), TakeFork, &taken, nullptr);
    ASSERT_NE(nullptr, consumer);
    const int epollFd = ring_buffer__epoll_fd(consumer);
    epoll_event event;
    Kavo::Bpf::RingWakeup wakeup;
    ASSERT_TRUE(wakeup.map(KavoBpfService::RINGBUF_CONSUMER_PATH[0], ring.get()));
    android::base::unique_fd wordFd(bpf_obj_get(KavoBpfService::RINGBUF_CONSUMER_PATH[0].c_str()));
    auto* word = static_cast<volatile uint64_t*>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, wordFd.get(), 0));
    ASSERT_NE(MAP_FAILED, static_cast<void*>(const_cast<uint64_t*>(word)));

    *word = UINT64_MAX;  // busy with what it has: awake for good
    for (int settle = 0; settle < 2; ++settle) {
      do ring_buffer__consume(consumer);
      while (epoll_wait(epollFd, &event, 1, 0) > 0);
      std::this_thread::sleep_for(10ms);
    }
    const pid_t unwoken = kavo::test::ForkAndReap();
    EXPECT_EQ(0, epoll_wait(epollFd, &event, 1, 200)) << "a record woke a consumer that is awake";
    EXPECT_TRUE(wakeup.beforeWait()) << "its record is there for the look before it waits";
    EXPECT_EQ(0u, *word);
    ring_buffer__consume(consumer);
    EXPECT_EQ(1, std::count(taken.begin(), taken.end(), unwoken));

    bool pending = true;  // waiting now: once its look found nothing, the next record wakes it
    for (int look = 0; look < 1000 && (pending = wakeup.beforeWait()); ++look) ring_buffer__consume(consumer);
    ASSERT_FALSE(pending) << "records kept coming";
    const pid_t woken = kavo::test::ForkAndReap();
    EXPECT_TRUE(WaitUntil([&] {
      if (epoll_wait(epollFd, &event, 1, 100) > 0) ring_buffer__consume(consumer);
      return std::count(taken.begin(), taken.end(), woken) > 0;
    })) << "the consumer was not woken for its record";

    // Lingering after that burst: never after an empty poll; still awake
    // during the pause, so a record made then wakes nobody and the look after
    // it takes it; pausing again while pauses find records; after a wake-up
    // whose first pause found nothing, only every fourth wake-up pauses;
    // records already waiting are taken without a pause.
    EXPECT_FALSE(wakeup.lingerAfter(0));
    wakeup.onRecord();  // as the monitor's sample callback does
    do ring_buffer__consume(consumer);
    while (epoll_wait(epollFd, &event, 1, 0) > 0);
    *word = 1;  // a lease that ran out while the consumer kept busy
    wakeup.renew();
    EXPECT_TRUE(wakeup.lingerAfter(1)) << "the first pause after a wake-up";
    const pid_t duringPause = kavo::test::ForkAndReap();
    EXPECT_EQ(0, epoll_wait(epollFd, &event, 1, 50)) << "a record made during the pause woke the consumer";
    const int found = ring_buffer__consume(consumer);
    EXPECT_TRUE(found >= 1 && std::count(taken.begin(), taken.end(), duringPause) == 1) << found;
    // No records from here on (other processes fork too), so the ring stays caught up.
    ASSERT_TRUE(KavoBpfService::GetInstance()->enableCoreBpf(0, false));
    ring_buffer__consume(consumer);
    wakeup.lingered(found);
    EXPECT_TRUE(wakeup.lingerAfter(1)) << "a pause that paid is followed by another";
    wakeup.lingered(0);
    // The monitor then waits; each wake-up below takes one record.
    auto wakeUpAndPause = [&] {
      EXPECT_FALSE(wakeup.beforeWait());
      return wakeup.lingerAfter(1);
    };
    EXPECT_TRUE(wakeUpAndPause()) << "the last wake-up's first pause paid";
    wakeup.lingered(0);
    for (int skipped = 1; skipped < Kavo::Bpf::RingWakeup::kProbeEvery; ++skipped) {
      EXPECT_FALSE(wakeUpAndPause()) << "wake-up " << skipped << " after a first pause that found nothing";
    }
    EXPECT_TRUE(wakeUpAndPause()) << "every fourth wake-up tries a pause again";
    wakeup.lingered(0);
    EXPECT_FALSE(wakeUpAndPause()) << "a try that found nothing starts the count again";
    for (int skipped = 2; skipped < Kavo::Bpf::RingWakeup::kProbeEvery; ++skipped) EXPECT_FALSE(wakeUpAndPause());
    EXPECT_TRUE(wakeUpAndPause());
    wakeup.lingered(1);
    EXPECT_TRUE(wakeUpAndPause()) << "a try that paid: every wake-up pauses again";
    wakeup.lingered(1);
    EXPECT_TRUE(wakeup.lingerAfter(1)) << "pauses go on while they find records";
    wakeup.lingered(0);
    ASSERT_TRUE(KavoBpfService::GetInstance()->enableCoreBpf(0, true));
    kavo::test::ForkAndReap();
    EXPECT_FALSE(wakeup.lingerAfter(1)) << "records waiting are taken before any pause";
    munmap(const_cast<uint64_t*>(word), 4096);
    ring_buffer__free(consumer);
  });
}

}  // namespace
