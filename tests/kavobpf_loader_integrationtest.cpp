// kavobpf_loader as the platform runs it: it pins every program and map the
// service looks for, in each kprobe program's place the flavour the kernel
// can attach, can be run again, cleans up after itself, and says in one line
// what is wrong when it cannot do its job.

#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "bpf/kavo_bpf_programs.h"
#include "kavobpf_probe_flavour.h"
#include "support/kernel.h"
#include "support/harness.h"
#include "service/kavo_bpf_service.h"
#include "support/processes.h"

namespace {

using Kavo::Bpf::KavoBpfService;
using kavo::test::PathExists;
using kavo::test::RunCommand;
using kavo::test::ToolPath;

struct bpf_map_info MapInfo(const std::string& path) {
  struct bpf_map_info info = {};
  android::base::unique_fd fd(bpf_obj_get(path.c_str()));
  __u32 length = sizeof(info);
  if (fd.get() >= 0) bpf_obj_get_info_by_fd(fd.get(), &info, &length);
  return info;
}

size_t Lines(const std::string& text) { return std::count(text.begin(), text.end(), '\n'); }

// The kprobe programs of the catalogue, as {set, program, function}.
struct KprobeProgram {
  std::string set, program, function;
};
std::vector<KprobeProgram> KprobePrograms() {
  std::vector<KprobeProgram> programs;
  for (const auto* table : {&KavoBpfService::PROG_EVENT_MAP, &KavoBpfService::PROG_GPL_EVENT_MAP}) {
    for (const auto& [set, kinds] : *table) {
      auto kprobes = kinds.find(Kavo::Bpf::KAVO_ATTACH_KPROBE);
      if (kprobes == kinds.end()) continue;
      for (const auto& program : kprobes->second) programs.push_back({set, program[0], program[1]});
    }
  }
  return programs;
}

uint32_t PinnedProgramType(const std::string& set, const std::string& program) {
  struct bpf_prog_info info = {};
  __u32 length = sizeof(info);
  android::base::unique_fd fd(bpf_obj_get(
      (KavoBpfService::BPF_FS_PATH + "/prog_" + set + "_kprobe_" + program).c_str()));
  if (fd.get() < 0 || bpf_obj_get_info_by_fd(fd.get(), &info, &length) != 0) return 0;
  return info.type;
}

TEST(KavobpfLoader, PinsEverythingTheServiceOpensAndCleansUp) {
  kavo::test::RunInNamespace([] {
    std::string why;
    if (!kavo::test::BpfAvailable(&why)) KAVO_KERNEL_SKIP(why);
    auto first = RunCommand({ToolPath("kavobpf_loader")});
    ASSERT_EQ(0, first.exitCode) << first.output;
    for (const std::string& path : kavo::test::LoaderPins()) EXPECT_TRUE(PathExists(path)) << path;

    // The layouts the service relies on.
    struct bpf_map_info status = MapInfo(KavoBpfService::RINGBUF_STATUS_PATH[0]);
    EXPECT_EQ(BPF_MAP_TYPE_ARRAY, status.type);
    EXPECT_EQ(4u, status.key_size);
    EXPECT_EQ(8u, status.value_size);
    EXPECT_EQ(5u, status.max_entries);
    struct bpf_map_info fdMap =
        MapInfo(KavoBpfService::BPF_FS_PATH + "/map_KavoBpfDefineset_open_fd_caller_map");
    EXPECT_EQ(4u, fdMap.key_size);
    EXPECT_EQ(48u, fdMap.value_size);
    EXPECT_EQ(BPF_MAP_TYPE_RINGBUF, MapInfo(KavoBpfService::RINGBUF_MAP_PATH[1]).type);

    // Again, with small rings: the earlier pins are replaced, not refused.
    // One line per kprobe program, and the summary.
    auto second = RunCommand({ToolPath("kavobpf_loader"), "--ring-size", "8192"});
    ASSERT_EQ(0, second.exitCode) << second.output;
    EXPECT_EQ(KprobePrograms().size() + 1, Lines(second.output)) << second.output;
    for (int ring = 0; ring < KavoBpfService::kRingCount; ++ring) {
      EXPECT_EQ(8192u, MapInfo(KavoBpfService::RINGBUF_MAP_PATH[ring]).max_entries);
    }

    auto unload = RunCommand({ToolPath("kavobpf_loader"), "--unload"});
    ASSERT_EQ(0, unload.exitCode) << unload.output;
    for (const std::string& path : kavo::test::LoaderPins()) EXPECT_FALSE(PathExists(path)) << path;
    EXPECT_FALSE(PathExists(KavoBpfService::BPF_FS_PATH));
    // Nothing left to unload is not an error either.
    EXPECT_EQ(0, RunCommand({ToolPath("kavobpf_loader"), "--unload"}).exitCode);
  });
}

TEST(KavobpfLoader, RefusesBadRingSizesWithOneLine) {
  for (const char* size : {"1000", "4095", "12288", "0", "-4096", "4k", "", "4294967296"}) {
    auto result = RunCommand({ToolPath("kavobpf_loader"), "--ring-size", size});
    EXPECT_EQ(2, result.exitCode) << size << ": " << result.output;
    EXPECT_EQ(1u, Lines(result.output)) << result.output;
    EXPECT_NE(std::string::npos, result.output.find("--ring-size")) << result.output;
  }
  for (const std::vector<std::string>& bad :
       {std::vector<std::string>{"--ring-size"}, {"--probe-flavour"}, {"--bogus"}, {"stray"}}) {
    std::vector<std::string> argv = {ToolPath("kavobpf_loader")};
    argv.insert(argv.end(), bad.begin(), bad.end());
    auto result = RunCommand(argv);
    EXPECT_EQ(2, result.exitCode) << bad[0] << ": " << result.output;
    EXPECT_EQ(1u, Lines(result.output)) << result.output;
  }
  for (const char* flavour : {"", "fentry", "KPROBE", "auto "}) {
    auto result = RunCommand({ToolPath("kavobpf_loader"), "--probe-flavour", flavour});
    EXPECT_EQ(2, result.exitCode) << flavour << ": " << result.output;
    EXPECT_EQ(1u, Lines(result.output)) << result.output;
    EXPECT_NE(std::string::npos, result.output.find("--probe-flavour")) << result.output;
  }
  auto help = RunCommand({ToolPath("kavobpf_loader"), "--help"});
  EXPECT_EQ(0, help.exitCode);
  for (const char* documented : {"--ring-size BYTES", "--unload", "/sys/fs/bpf/kavo/",
                                 "--probe-flavour", "auto", "kprobe", "trampoline", "BTF"}) {
    EXPECT_NE(std::string::npos, help.output.find(documented)) << documented;
  }
}

// On the running kernel, for real: kprobes where the kernel has them; where
// it has none, the twin wherever the kernel loads it, and otherwise the kprobe
// with the reason. The pinned program is of the flavour the line names.
// Forced, the choice follows the option instead of the kprobe test.
TEST(KavobpfLoader, PinsTheFlavourTheKernelCanAttach) {
  kavo::test::RunInNamespace([] {
    std::string why;
    if (!kavo::test::BpfAvailable(&why)) KAVO_KERNEL_SKIP(why);
    const bool kprobes = kavo::test::KprobesAvailable();
    for (const char* flavour : {"auto", "kprobe", "trampoline"}) {
      SCOPED_TRACE(flavour);
      auto loaded = RunCommand({ToolPath("kavobpf_loader"), "--probe-flavour", flavour});
      ASSERT_EQ(0, loaded.exitCode) << loaded.output;
      bool wantTwin = std::string(flavour) == "trampoline" || (flavour == std::string("auto") && !kprobes);
      for (const KprobeProgram& kprobe : KprobePrograms()) {
        kavo::test::PinnedProbe pinned =
            kavo::test::PinnedProbeOf(loaded.output, kprobe.set, kprobe.program);
        uint32_t type = PinnedProgramType(kprobe.set, kprobe.program);
        if (pinned.flavour == "kprobe") {
          EXPECT_EQ(kprobe.function, pinned.function) << kprobe.program;
          EXPECT_EQ(BPF_PROG_TYPE_KPROBE, type) << kprobe.program;
          // A kprobe where a twin was wanted comes with the kernel's reason.
          EXPECT_EQ(wantTwin, !pinned.noTrampoline.empty()) << kprobe.program << ": " << loaded.output;
        } else {
          ASSERT_TRUE(wantTwin) << kprobe.program << ": " << loaded.output;
          EXPECT_TRUE(pinned.flavour == "fentry" || pinned.flavour == "fexit") << pinned.flavour;
          EXPECT_EQ(BPF_PROG_TYPE_TRACING, type) << kprobe.program;
          // Its own function, or, for the statistics setup, the export around it.
          if (kprobe.program == "dma_buf_stats_setup" && pinned.function == "dma_buf_export") {
            EXPECT_EQ("fexit", pinned.flavour);
          } else {
            EXPECT_EQ(kprobe.function, pinned.function) << kprobe.program;
          }
        }
      }
    }
  });
}

// The choice itself, over the real objects' programs, for kernels this
// machine is not: with kprobes, with trampolines, with neither, and without
// dma_buf_stats_setup.
std::vector<kavo::loader::ProgramSection> ObjectPrograms(size_t set) {
  std::vector<kavo::loader::ProgramSection> sections;
  struct kavo_bpf_object_image image = kavo_bpf_object_image(set);
  struct bpf_object* object = bpf_object__open_mem(image.data, image.size, nullptr);
  if (object == nullptr) return sections;
  struct bpf_program* prog;
  bpf_object__for_each_program(prog, object) {
    sections.push_back({bpf_program__name(prog), bpf_program__section_name(prog)});
  }
  bpf_object__close(object);
  return sections;
}

std::map<std::string, std::string> Choose(const std::vector<kavo::loader::ProgramSection>& programs,
                                          kavo::loader::ProbeFlavour flavour, bool kprobes,
                                          const std::vector<std::string>& refusedFunctions,
                                          int* asked = nullptr) {
  auto loads = [&](const std::string& kind, const std::string& function, std::string* why) {
    if (asked != nullptr) ++*asked;
    bool refused = std::count(refusedFunctions.begin(), refusedFunctions.end(), function) > 0;
    if (refused) *why = kind + " on " + function + " refused";
    return !refused;
  };
  std::vector<kavo::loader::ProbeChoice> choices;
  std::string error;
  EXPECT_TRUE(kavo::loader::ChooseProbePrograms(programs, flavour, kprobes, loads, &choices, &error))
      << error;
  std::map<std::string, std::string> chosen;  // program -> "<chosen> <flavour> <function>[ why]"
  for (const auto& choice : choices) {
    EXPECT_EQ("kprobe", choice.typeWord);
    chosen[choice.program] = choice.chosen + " " + choice.flavour + " " + choice.function +
                             (choice.why.empty() ? "" : " " + choice.why);
  }
  return chosen;
}

TEST(KavobpfLoader, ChoosesKprobesWhereTheKernelHasThemAndTwinsElsewhere) {
  using kavo::loader::ProbeFlavour;
  auto base = ObjectPrograms(0);
  auto gpl = ObjectPrograms(1);
  ASSERT_FALSE(base.empty());
  ASSERT_FALSE(gpl.empty());
  const std::vector<std::string> none;

  // A kernel with kprobes: the kprobes, without asking about trampolines.
  int asked = 0;
  EXPECT_EQ("enter_fd_install kprobe fd_install",
            Choose(base, ProbeFlavour::kAuto, true, none, &asked)["enter_fd_install"]);
  auto withKprobes = Choose(gpl, ProbeFlavour::kAuto, true, none, &asked);
  ASSERT_EQ(5u, withKprobes.size());
  for (const auto& [program, chosen] : withKprobes) {
    EXPECT_EQ(program + " kprobe " + program, chosen);
  }
  EXPECT_EQ(0, asked);

  // Without kprobes: each twin on its own function.
  EXPECT_EQ("enter_fd_install__fentry fentry fd_install",
            Choose(base, ProbeFlavour::kAuto, false, none)["enter_fd_install"]);
  auto twins = Choose(gpl, ProbeFlavour::kAuto, false, none);
  for (const auto& [program, chosen] : twins) {
    EXPECT_EQ(program + "__fentry fentry " + program, chosen);
  }
  // Without dma_buf_stats_setup: the export it would have been called from.
  EXPECT_EQ("dma_buf_stats_setup__export fexit dma_buf_export",
            Choose(gpl, ProbeFlavour::kAuto, false, {"dma_buf_stats_setup"})["dma_buf_stats_setup"]);
  // Neither: the kprobe, with every refusal.
  EXPECT_EQ("dma_buf_stats_setup kprobe dma_buf_stats_setup fentry on dma_buf_stats_setup refused; "
            "fexit on dma_buf_export refused",
            Choose(gpl, ProbeFlavour::kAuto, false, {"dma_buf_stats_setup", "dma_buf_export"})
                ["dma_buf_stats_setup"]);
  EXPECT_EQ("enter_fd_install kprobe fd_install fentry on fd_install refused",
            Choose(base, ProbeFlavour::kAuto, false, {"fd_install"})["enter_fd_install"]);

  // Forced either way, whatever the kprobe test says.
  asked = 0;
  EXPECT_EQ("enter_fd_install kprobe fd_install",
            Choose(base, ProbeFlavour::kKprobe, false, none, &asked)["enter_fd_install"]);
  EXPECT_EQ(0, asked);
  EXPECT_EQ("enter_fd_install__fentry fentry fd_install",
            Choose(base, ProbeFlavour::kTrampoline, true, none)["enter_fd_install"]);

  // A twin that stands in for nothing is a build mistake, said as such.
  std::vector<kavo::loader::ProbeChoice> choices;
  std::string error;
  EXPECT_FALSE(kavo::loader::ChooseProbePrograms(
      {{"enter_fd_install", "kprobe/fd_install"}, {"fd_instal__fentry", "fentry/fd_install"}},
      ProbeFlavour::kAuto, false, [](const std::string&, const std::string&, std::string*) { return true; },
      &choices, &error));
  EXPECT_NE(std::string::npos, error.find("fd_instal__fentry")) << error;
}

TEST(KavobpfLoader, SaysWhatIsMissing) {
  kavo::test::RunInNamespace([] {
    std::string why;
    if (!kavo::test::BpfAvailable(&why)) KAVO_KERNEL_SKIP(why);
    // Without the rights: bpffs is root's, and so is bpf().
    auto nobody = RunCommand({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                              ToolPath("kavobpf_loader")});
    EXPECT_NE(0, nobody.exitCode) << nobody.output;
    EXPECT_NE(std::string::npos, nobody.output.find("needs root")) << nobody.output;
    EXPECT_EQ(1u, Lines(nobody.output)) << nobody.output;

    // A plain directory where bpffs should be.
    ASSERT_EQ(0, mount("tmpfs", "/sys/fs/bpf", "tmpfs", 0, nullptr));
    auto noBpffs = RunCommand({ToolPath("kavobpf_loader")});
    EXPECT_EQ(1, noBpffs.exitCode) << noBpffs.output;
    EXPECT_EQ(1u, Lines(noBpffs.output)) << noBpffs.output;
    EXPECT_NE(std::string::npos, noBpffs.output.find("no BPF file system mounted at /sys/fs/bpf"))
        << noBpffs.output;
    EXPECT_FALSE(PathExists("/sys/fs/bpf/kavo"));
  });
}

}  // namespace
