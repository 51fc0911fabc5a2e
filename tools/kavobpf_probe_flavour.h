#pragma once

// Which flavour of each kernel-function program kavobpf_loader loads.
//
// A kprobe or kretprobe program of an object set may have trampoline twins:
// fentry or fexit programs named <program>__<suffix> that run the same body.
// Only one of a group is loaded, and it is pinned under the kprobe's name, so
// the service finds it where it always looked:
//
//   kernel can attach kprobes        -> the kprobe
//   otherwise, the kernel loads a    -> that twin (one on the kprobe's own
//   trampoline program on a twin's      function first, then the others in
//   function                            object order)
//   otherwise                        -> the kprobe, whose attach then fails
//                                       and is logged as it always was
//
// A forced flavour replaces the first test: "kprobe" always takes the kprobe,
// "trampoline" takes a twin wherever the kernel loads one.
//
// Thread-safety: the free functions are re-entrant; a TrampolineProbe belongs
// to one thread at a time.

#include <functional>
#include <string>
#include <vector>

struct btf;

namespace kavo::loader {

enum class ProbeFlavour { kAuto, kKprobe, kTrampoline };

// "auto", "kprobe" or "trampoline"; false for anything else.
bool ParseProbeFlavour(const std::string& text, ProbeFlavour* flavour);

// Whether the kernel lets kprobes be attached the way the service's
// bpf_attach_kprobe does it: through the perf kprobe PMU, or else through
// tracefs's kprobe_events. A kernel built without kprobes has neither.
bool KprobesAttachable();

// Whether the kernel loads a trampoline program on a function, learnt by
// loading one that does nothing: the function must be in the kernel's BTF,
// and the kernel must take trampolines there at all (a kernel whose function
// tracing is locked refuses them; a function it cannot trace is refused too).
// What can still fail is the attach itself, which the service logs.
class TrampolineProbe {
 public:
  TrampolineProbe() = default;
  ~TrampolineProbe();
  TrampolineProbe(const TrampolineProbe&) = delete;
  TrampolineProbe& operator=(const TrampolineProbe&) = delete;

  // |kind| is "fentry" or "fexit". False with the reason in *why.
  bool Loads(const std::string& kind, const std::string& function, std::string* why);

 private:
  bool btfRead_ = false;
  struct btf* btf_ = nullptr;  // the kernel's BTF, read at the first question
  std::string btfError_;
};

// A program of an object set before it is loaded.
struct ProgramSection {
  std::string name;     // "enter_fd_install__fentry"
  std::string section;  // "fentry/fd_install"
};

// The part of a section name before its first '/' ("kprobe", "fentry",
// "tracepoint", ...), and the part after it (the function, for a probe).
std::string SectionKind(const std::string& section);
std::string SectionTarget(const std::string& section);

// One kprobe or kretprobe program and the program loaded in its place.
struct ProbeChoice {
  std::string program;   // the kprobe program; the pin is named after it
  std::string typeWord;  // "kprobe" or "kretprobe", as in the pinned name
  std::string chosen;    // the program to load: |program| or a twin
  std::string flavour;   // the chosen program's kind: kprobe, kretprobe, fentry, fexit
  std::string function;  // the kernel function the chosen program runs on
  std::string why;       // when a twin was wanted and the kprobe stayed: why
};

// Asks whether a trampoline program of a kind ("fentry", "fexit") loads on a
// function; false with the reason in *why.
using TrampolineTest =
    std::function<bool(const std::string& kind, const std::string& function, std::string* why)>;

// Pairs every kprobe and kretprobe program of |programs| with its twins and
// chooses one of each group, in the order of |programs|. False, with *error,
// when a trampoline program stands in for no kprobe program of the set.
bool ChooseProbePrograms(const std::vector<ProgramSection>& programs, ProbeFlavour flavour,
                         bool kprobesAttachable, const TrampolineTest& trampolineLoads,
                         std::vector<ProbeChoice>* choices, std::string* error);

}  // namespace kavo::loader
