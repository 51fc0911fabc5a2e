#include "kavobpf_probe_flavour.h"

#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <bpf/btf.h>
#include <errno.h>
#include <linux/bpf.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <map>

namespace kavo::loader {

namespace {

constexpr char kTwinSeparator[] = "__";

bool IsProbeKind(const std::string& kind) { return kind == "kprobe" || kind == "kretprobe"; }
bool IsTrampolineKind(const std::string& kind) { return kind == "fentry" || kind == "fexit"; }

}  // namespace

bool ParseProbeFlavour(const std::string& text, ProbeFlavour* flavour) {
  static const std::map<std::string, ProbeFlavour> kNames = {
      {"auto", ProbeFlavour::kAuto},
      {"kprobe", ProbeFlavour::kKprobe},
      {"trampoline", ProbeFlavour::kTrampoline},
  };
  auto found = kNames.find(text);
  if (found == kNames.end()) return false;
  *flavour = found->second;
  return true;
}

bool KprobesAttachable() {
  // bcc opens a kprobe through the PMU when the kernel has one and falls back
  // to writing kprobe_events; both exist only where kprobe events are built.
  for (const char* path : {"/sys/bus/event_source/devices/kprobe/type",
                           "/sys/kernel/tracing/kprobe_events",
                           "/sys/kernel/debug/tracing/kprobe_events"}) {
    if (access(path, F_OK) == 0) return true;
  }
  return false;
}

TrampolineProbe::~TrampolineProbe() { btf__free(btf_); }

bool TrampolineProbe::Loads(const std::string& kind, const std::string& function,
                            std::string* why) {
  if (!btfRead_) {
    btfRead_ = true;
    btf_ = btf__load_vmlinux_btf();  // null, with errno set, without BTF
    if (btf_ == nullptr) btfError_ = std::string("the kernel has no BTF: ") + strerror(errno);
  }
  if (btf_ == nullptr) {
    *why = btfError_;
    return false;
  }
  int id = btf__find_by_name_kind(btf_, function.c_str(), BTF_KIND_FUNC);
  if (id <= 0) {
    *why = kind + " on " + function + ": not in the kernel's BTF";
    return false;
  }
  // r0 = 0; exit.
  struct bpf_insn program[2] = {};
  program[0].code = BPF_ALU64 | BPF_MOV | BPF_K;
  program[1].code = BPF_JMP | BPF_EXIT;
  struct bpf_prog_load_opts opts = {};
  opts.sz = sizeof(opts);
  opts.expected_attach_type = kind == "fexit" ? BPF_TRACE_FEXIT : BPF_TRACE_FENTRY;
  opts.attach_btf_id = static_cast<__u32>(id);
  android::base::unique_fd loaded(
      bpf_prog_load(BPF_PROG_TYPE_TRACING, "kavo_probe", "GPL", program, 2, &opts));
  if (loaded.get() < 0) {
    *why = "the kernel refused " + kind + " on " + function + ": " + strerror(errno);
    return false;
  }
  return true;
}

std::string SectionKind(const std::string& section) { return section.substr(0, section.find('/')); }

std::string SectionTarget(const std::string& section) {
  size_t slash = section.find('/');
  return slash == std::string::npos ? "" : section.substr(slash + 1);
}

bool ChooseProbePrograms(const std::vector<ProgramSection>& programs, ProbeFlavour flavour,
                         bool kprobesAttachable, const TrampolineTest& trampolineLoads,
                         std::vector<ProbeChoice>* choices, std::string* error) {
  choices->clear();
  std::map<std::string, size_t> groupOf;  // kprobe program -> its index in *choices
  for (const ProgramSection& program : programs) {
    std::string kind = SectionKind(program.section);
    if (!IsProbeKind(kind)) continue;
    groupOf[program.name] = choices->size();
    ProbeChoice choice;
    choice.program = choice.chosen = program.name;
    choice.typeWord = choice.flavour = kind;
    choice.function = SectionTarget(program.section);
    choices->push_back(choice);
  }
  std::vector<std::vector<const ProgramSection*>> twins(choices->size());
  for (const ProgramSection& program : programs) {
    if (!IsTrampolineKind(SectionKind(program.section))) continue;
    size_t separator = program.name.rfind(kTwinSeparator);
    auto group = separator == std::string::npos ? groupOf.end()
                                                : groupOf.find(program.name.substr(0, separator));
    if (group == groupOf.end()) {
      *error = "trampoline program " + program.name + " stands in for no kprobe program";
      return false;
    }
    twins[group->second].push_back(&program);
  }

  bool wantTwin = flavour == ProbeFlavour::kTrampoline ||
                  (flavour == ProbeFlavour::kAuto && !kprobesAttachable);
  if (!wantTwin) return true;
  for (size_t i = 0; i < choices->size(); ++i) {
    ProbeChoice& choice = (*choices)[i];
    // A twin on the kprobe's own function is the closest stand-in.
    std::stable_partition(twins[i].begin(), twins[i].end(), [&choice](const ProgramSection* twin) {
      return SectionTarget(twin->section) == choice.function;
    });
    std::vector<std::string> refusals;
    for (const ProgramSection* twin : twins[i]) {
      std::string kind = SectionKind(twin->section);
      std::string function = SectionTarget(twin->section);
      std::string why;
      if (!trampolineLoads(kind, function, &why)) {
        refusals.push_back(why);
        continue;
      }
      choice.chosen = twin->name;
      choice.flavour = kind;
      choice.function = function;
      refusals.clear();
      break;
    }
    if (twins[i].empty()) refusals.push_back("it has no trampoline twin");
    for (const std::string& refusal : refusals) {
      choice.why += (choice.why.empty() ? "" : "; ") + refusal;
    }
  }
  return true;
}

}  // namespace kavo::loader
