#include "support/kernel.h"

#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <errno.h>
#include <string.h>

#include <algorithm>

#include "kavobpf_probe_flavour.h"
#include "service/kavo_bpf_service.h"
#include "support/kernel_stand_ins.h"
#include "support/processes.h"
#include "support/wait_until.h"
#include "utils/kavo_bpf_file.h"

namespace kavo::test {

bool BpfAvailable(std::string* why) {
  android::base::unique_fd ring(bpf_map_create(BPF_MAP_TYPE_RINGBUF, "kavo_probe", 0, 0, 4096, nullptr));
  if (ring.get() < 0) {
    *why = std::string("creating a BPF ring buffer: ") + strerror(errno);
    return false;
  }
  return true;
}

bool LoadKernelSide(std::string* why, const std::vector<std::string>& args, std::string* output) {
  std::vector<std::string> argv = {ToolPath("kavobpf_loader")};
  argv.insert(argv.end(), args.begin(), args.end());
  CommandResult result = RunCommand(argv);
  if (output != nullptr) *output = result.output;
  if (result.exitCode == 0) return true;
  *why = "kavobpf_loader exited " + std::to_string(result.exitCode) + ": " + result.output;
  return false;
}

PinnedProbe PinnedProbeOf(const std::string& loaderOutput, const std::string& set, const std::string& program) {
  PinnedProbe pinned;
  const std::string prefix = "kavobpf_loader: " + set + " " + program + ": ";
  size_t at = loaderOutput.find(prefix);
  if (at == std::string::npos) return pinned;
  std::string line = loaderOutput.substr(at + prefix.size());
  line = line.substr(0, std::min(line.find('\n'), line.find(" (no trampoline: ")));
  size_t blank = line.find(' ');
  pinned.flavour = line.substr(0, blank);
  if (blank != std::string::npos) pinned.function = line.substr(blank + 1);
  return pinned;
}

bool PinnedProbeAttaches(const PinnedProbe& pinned) {
  if (pinned.flavour == "fentry" || pinned.flavour == "fexit") return true;
  // A kprobe attaches where kprobes do at all (the loader's own test) and the
  // kernel has the function among its symbols.
  if (!kavo::loader::KprobesAttachable()) return false;
  bool found = false;
  Kavo::Bpf::ForEachLine("/proc/kallsyms", [&](std::string_view line) {
    // "<address> <kind> <name>[\t[module]]"
    size_t name = line.find(' ', line.find(' ') + 1);
    if (name != std::string_view::npos) {
      std::string_view symbol = line.substr(name + 1);
      found = symbol.substr(0, symbol.find('\t')) == pinned.function;
    }
    return found ? Kavo::Bpf::LineAction::kStop : Kavo::Bpf::LineAction::kContinue;
  });
  return found;
}

std::vector<std::string> LoaderPins() {
  using Kavo::Bpf::KavoBpfService;
  static const char* const kTypeWords[] = {"tracepoint", "kprobe", "kretprobe"};
  std::vector<std::string> paths;
  for (const auto* table : {&KavoBpfService::PROG_EVENT_MAP, &KavoBpfService::PROG_GPL_EVENT_MAP}) {
    for (const auto& [set, kinds] : *table) {
      for (const auto& [kind, programs] : kinds) {
        for (const auto& program : programs) paths.push_back(KavoBpfService::BPF_FS_PATH + "/prog_" + set + "_" + kTypeWords[kind] + "_" + program[0]);
      }
    }
  }
  for (int ring = 0; ring < KavoBpfService::kRingCount; ++ring) {
    paths.insert(paths.end(), {KavoBpfService::RINGBUF_MAP_PATH[ring], KavoBpfService::RINGBUF_STATUS_PATH[ring], KavoBpfService::RINGBUF_LOST_PATH[ring],
                               KavoBpfService::RING_STATS_PATH[ring], KavoBpfService::RINGBUF_CONSUMER_PATH[ring]});
  }
  const std::string gpl = KavoBpfService::BPF_FS_PATH + "/map_KavoBpfGplDefineset_";
  paths.insert(paths.end(), {KavoBpfService::BPF_FS_PATH + "/map_KavoBpfDefineset_open_fd_caller_map", gpl + "dmabuf_allocate_map",
                             gpl + "dmabuf_size_map", gpl + "dmabuf_perprocess_size_map", KavoBpfService::DMABUF_BPF_PROCESS_INODE_MAP_PATH,
                             KavoBpfService::DMABUF_BPF_PROCESS_MMAP_INFOS_PATH});
  return paths;
}

Kavo::Bpf::KavoBpfService* StartServiceOnKernel(std::string* why, const std::vector<std::string>& loaderArgs) {
  if (!LoadKernelSide(why, loaderArgs)) return nullptr;
  return StartServiceOnPinnedKernelSide(why);
}

Kavo::Bpf::KavoBpfService* StartServiceOnPinnedKernelSide(std::string* why) {
  using Kavo::Bpf::KavoBpfService;
  android::base::SetProperty("ro.kernel.version", RunningKernelVersion());
  android::base::SetProperty("sys.kavo_bpf_ready", "1");
  if (!Kavo::Bpf::BpfServiceMain()) {
    *why = "the service did not start";
    return nullptr;
  }
  constexpr int64_t kProducersOn = KAVO_RING_CORE_ENABLED_BIT | KAVO_RING_NORMAL_ENABLED_BIT;
  auto producersOn = [](int ring) {
    int64_t word = ReadControlWord(KavoBpfService::RINGBUF_STATUS_PATH[ring]);
    return word >= 0 && (word & kProducersOn) == kProducersOn;
  };
  if (!WaitUntil([&] { return producersOn(0) && producersOn(1); }, std::chrono::seconds(60))) {
    *why = "the monitors did not switch their producers on";
    return nullptr;
  }
  return KavoBpfService::GetInstance();
}

std::vector<std::string> DrainRing(const std::string& ringMapPath) {
  std::vector<std::string> records;
  android::base::unique_fd ring(bpf_obj_get(ringMapPath.c_str()));
  if (ring.get() < 0) return records;
  auto collect = [](void* ctx, void* data, size_t size) {
    static_cast<std::vector<std::string>*>(ctx)->emplace_back(static_cast<const char*>(data), size);
    return 0;
  };
  struct ring_buffer* reader = ring_buffer__new(ring.get(), collect, &records, nullptr);
  if (reader == nullptr) return records;
  ring_buffer__consume(reader);
  ring_buffer__free(reader);
  return records;
}

}  // namespace kavo::test
