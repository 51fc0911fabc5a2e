// kavobpf_loader: plays the platform's part of loading the kernel side. It
// loads the two BPF object sets embedded in it (KavoBpfDefineset and
// KavoBpfGplDefineset) with libbpf and pins, under /sys/fs/bpf/kavo/,
//
//   every program as  prog_<set>_<tracepoint|kprobe|kretprobe>_<program>
//   every named map as map_<set>_<map>
//
// which is where the service looks for them. It attaches nothing: attaching
// is the service's job. Pins of an earlier run are replaced; the ring buffers
// are pinned last, since their presence is what tells a waiting host that the
// kernel side is ready.
//
// A kprobe program may have trampoline twins (fentry or fexit) with the same
// body, for kernels that cannot attach kprobes; only the flavour chosen for
// the running kernel is loaded, and it is pinned under the kprobe's name
// (kavobpf_probe_flavour.h says how it is chosen). A trampoline program the
// kernel refuses (its function missing from the BTF, say) would fail the
// whole object's load, so every program not chosen is switched off first.

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <errno.h>
#include <getopt.h>
#include <linux/magic.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bpf/kavo_bpf_programs.h"
#include "kavobpf_probe_flavour.h"
#include "utils/kavo_bpf_file.h"

namespace {

using kavo::loader::ProbeChoice;
using kavo::loader::ProbeFlavour;

constexpr char kBpfFsRoot[] = "/sys/fs/bpf";
constexpr char kPinDir[] = "/sys/fs/bpf/kavo";
constexpr char kRingMapName[] = "ringbuf_map";
constexpr unsigned long long kMaxRingSize = 1ULL << 31;

void PrintUsage(FILE* out) {
  fprintf(out,
          "Usage: kavobpf_loader [--ring-size BYTES] [--probe-flavour auto|kprobe|trampoline]\n"
          "                      [--unload] [--help]\n"
          "\n"
          "Loads the KAVO BPF object sets KavoBpfDefineset and KavoBpfGplDefineset\n"
          "(embedded in this program) and pins every program and map under\n"
          "/sys/fs/bpf/kavo/ as prog_<set>_<type>_<name> and map_<set>_<name>.\n"
          "Earlier pins are replaced. Needs root (or CAP_BPF and CAP_PERFMON) and\n"
          "the BPF file system mounted at /sys/fs/bpf.\n"
          "\n"
          "Options:\n"
          "  --ring-size BYTES  size of each set's ring buffer; a power of two of at\n"
          "                     least one page (default: as built, 1048576 for\n"
          "                     KavoBpfDefineset, 131072 for KavoBpfGplDefineset)\n"
          "  --probe-flavour F  which program to load for each kprobe program, pinned\n"
          "                     under the kprobe's name either way:\n"
          "                       auto        the kprobe where the kernel can attach\n"
          "                                   kprobes (a kprobe PMU under\n"
          "                                   /sys/bus/event_source/devices, or tracefs\n"
          "                                   kprobe_events); otherwise its trampoline\n"
          "                                   twin (fentry or fexit) when the twin's\n"
          "                                   function is in the kernel's BTF and the\n"
          "                                   kernel loads a trampoline program on it;\n"
          "                                   otherwise the kprobe (default)\n"
          "                       kprobe      always the kprobe\n"
          "                       trampoline  the twin wherever the kernel loads it\n"
          "                     One line per kprobe program says what was pinned, and\n"
          "                     why no twin was when one was wanted.\n"
          "  --unload           remove the pins of both sets instead of loading\n"
          "  --help             show this text and exit\n");
}

[[noreturn]] void Fail(int code, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void Fail(int code, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  fputs("kavobpf_loader: ", stderr);
  vfprintf(stderr, fmt, args);
  fputc('\n', stderr);
  va_end(args);
  exit(code);
}

// What failed for lack of rights is said so, rather than as a bare errno.
std::string Reason(int error) {
  if (error == EPERM || error == EACCES) {
    return std::string(strerror(error)) + " (needs root, or CAP_BPF and CAP_PERFMON)";
  }
  return strerror(error);
}

// libbpf's own account of a failure (the verifier's log among it) goes to
// stderr ahead of the loader's one-line summary.
int LibbpfPrint(enum libbpf_print_level level, const char* format, va_list args) {
  if (level != LIBBPF_WARN) return 0;
  return vfprintf(stderr, format, args);
}

unsigned long long ParseRingSize(const char* text) {
  long page = sysconf(_SC_PAGESIZE);
  char* end = nullptr;
  errno = 0;
  unsigned long long size = strtoull(text, &end, 10);
  bool number = text[0] >= '0' && text[0] <= '9' && end != text && *end == '\0' && errno == 0;
  if (!number || size < static_cast<unsigned long long>(page) || (size & (size - 1)) != 0 ||
      size > kMaxRingSize) {
    fprintf(stderr,
            "kavobpf_loader: --ring-size must be a power of two from %ld to %llu bytes, got '%s'\n",
            page, kMaxRingSize, text);
    exit(2);
  }
  return size;
}

void RequireBpfFs() {
  struct statfs fs;
  if (statfs(kBpfFsRoot, &fs) != 0) {
    Fail(1, "cannot look at %s: %s", kBpfFsRoot, strerror(errno));
  }
  if (static_cast<unsigned long>(fs.f_type) != BPF_FS_MAGIC) {
    Fail(1, "no BPF file system mounted at %s (mount -t bpf bpf %s)", kBpfFsRoot, kBpfFsRoot);
  }
}

bool IsOurPin(const std::string& name, size_t sets) {
  for (size_t i = 0; i < sets; ++i) {
    std::string set = kavo_bpf_object_image(i).set_name;
    if (name.rfind("prog_" + set + "_", 0) == 0 || name.rfind("map_" + set + "_", 0) == 0) {
      return true;
    }
  }
  return false;
}

int Unload() {
  std::vector<std::string> pins;
  bool listed = Kavo::Bpf::ForEachDirEntry(kPinDir, [&pins](const char* name) {
    if (IsOurPin(name, KAVO_BPF_OBJECT_SETS)) pins.emplace_back(name);
    return Kavo::Bpf::LineAction::kContinue;
  });
  if (!listed) {
    if (errno == ENOENT) {
      printf("kavobpf_loader: nothing pinned under %s\n", kPinDir);
      return 0;
    }
    Fail(1, "cannot list %s: %s", kPinDir, Reason(errno).c_str());
  }
  for (const std::string& name : pins) {
    std::string path = std::string(kPinDir) + "/" + name;
    if (unlink(path.c_str()) != 0)
      Fail(1, "cannot remove %s: %s", path.c_str(), Reason(errno).c_str());
  }
  // Only an empty directory goes; someone else's pins stay.
  rmdir(kPinDir);
  printf("kavobpf_loader: removed %zu pins from %s\n", pins.size(), kPinDir);
  return 0;
}

struct Pin {
  int fd;
  std::string path;
};

void PinAll(const std::vector<Pin>& pins) {
  for (const Pin& pin : pins) {
    if (unlink(pin.path.c_str()) != 0 && errno != ENOENT) {
      Fail(1, "cannot replace %s: %s", pin.path.c_str(), Reason(errno).c_str());
    }
    if (bpf_obj_pin(pin.fd, pin.path.c_str()) != 0) {
      Fail(1, "cannot pin %s: %s", pin.path.c_str(), Reason(errno).c_str());
    }
  }
}

struct bpf_object* OpenSet(const struct kavo_bpf_object_image& image, unsigned long long ringSize) {
  struct bpf_object_open_opts opts = {};
  opts.sz = sizeof(opts);
  opts.object_name = image.set_name;
  struct bpf_object* object = bpf_object__open_mem(image.data, image.size, &opts);
  if (object == nullptr) Fail(1, "%s: cannot open the object: %s", image.set_name, strerror(errno));
  if (ringSize != 0) {
    struct bpf_map* ring = bpf_object__find_map_by_name(object, kRingMapName);
    if (ring == nullptr || bpf_map__set_max_entries(ring, static_cast<__u32>(ringSize)) != 0) {
      Fail(1, "%s: cannot size %s", image.set_name, kRingMapName);
    }
  }
  return object;
}

// Chooses the flavour of each kprobe program of |object| and switches every
// kprobe program and twin that was not chosen off.
std::vector<ProbeChoice> SelectProbePrograms(const char* set, struct bpf_object* object,
                                             ProbeFlavour flavour, bool kprobesAttachable,
                                             const kavo::loader::TrampolineTest& trampolineLoads) {
  std::vector<kavo::loader::ProgramSection> sections;
  struct bpf_program* prog;
  bpf_object__for_each_program(prog, object) {
    std::string kind = kavo::loader::SectionKind(bpf_program__section_name(prog));
    if (kind != "tracepoint" && kind != "kprobe" && kind != "kretprobe" && kind != "fentry" &&
        kind != "fexit") {
      Fail(1, "%s: program %s has an unknown section %s", set, bpf_program__name(prog),
           bpf_program__section_name(prog));
    }
    sections.push_back({bpf_program__name(prog), bpf_program__section_name(prog)});
  }
  std::vector<ProbeChoice> choices;
  std::string error;
  if (!kavo::loader::ChooseProbePrograms(sections, flavour, kprobesAttachable, trampolineLoads,
                                         &choices, &error)) {
    Fail(1, "%s: %s", set, error.c_str());
  }
  bpf_object__for_each_program(prog, object) {
    std::string kind = kavo::loader::SectionKind(bpf_program__section_name(prog));
    if (kind == "tracepoint") continue;
    bool chosen = std::any_of(choices.begin(), choices.end(), [prog](const ProbeChoice& choice) {
      return choice.chosen == bpf_program__name(prog);
    });
    bpf_program__set_autoload(prog, chosen);
  }
  return choices;
}

bool AnyTwin(const std::vector<ProbeChoice>& choices) {
  return std::any_of(choices.begin(), choices.end(),
                     [](const ProbeChoice& choice) { return choice.chosen != choice.program; });
}

int Load(unsigned long long ringSize, ProbeFlavour flavour) {
  if (mkdir(kPinDir, 0755) != 0 && errno != EEXIST) {
    Fail(1, "cannot create %s: %s", kPinDir, Reason(errno).c_str());
  }
  bool kprobes = flavour == ProbeFlavour::kAuto && kavo::loader::KprobesAttachable();
  kavo::loader::TrampolineProbe probe;
  auto trampolineLoads = [&probe](const std::string& kind, const std::string& function,
                                  std::string* why) { return probe.Loads(kind, function, why); };

  std::vector<struct bpf_object*> objects;
  std::vector<Pin> programs, maps, rings;
  std::vector<std::string> choiceLines;
  for (size_t i = 0; i < KAVO_BPF_OBJECT_SETS; ++i) {
    struct kavo_bpf_object_image image = kavo_bpf_object_image(i);
    struct bpf_object* object = OpenSet(image, ringSize);
    std::vector<ProbeChoice> choices =
        SelectProbePrograms(image.set_name, object, flavour, kprobes, trampolineLoads);
    int err = bpf_object__load(object);
    if (err != 0 && AnyTwin(choices)) {
      // The kernel took a trampoline on each function and still refused a
      // twin: load the kprobes, which load everywhere, as before there were
      // twins.
      fprintf(stderr,
              "kavobpf_loader: the kernel refused the trampoline programs of %s (libbpf's reason "
              "above); loading its kprobe programs instead\n",
              image.set_name);
      bpf_object__close(object);
      object = OpenSet(image, ringSize);
      choices =
          SelectProbePrograms(image.set_name, object, ProbeFlavour::kKprobe, false, trampolineLoads);
      for (ProbeChoice& choice : choices) choice.why = "the kernel refused the set's twins";
      err = bpf_object__load(object);
    }
    if (err != 0) {
      Fail(1, "the kernel refused %s: %s (libbpf's reason above)", image.set_name,
           Reason(-err).c_str());
    }
    objects.push_back(object);

    std::string prefix = std::string(kPinDir) + "/prog_" + image.set_name + "_";
    struct bpf_program* prog;
    bpf_object__for_each_program(prog, object) {
      std::string kind = kavo::loader::SectionKind(bpf_program__section_name(prog));
      if (kind == "tracepoint") {
        programs.push_back({bpf_program__fd(prog), prefix + "tracepoint_" + bpf_program__name(prog)});
      }
    }
    for (const ProbeChoice& choice : choices) {
      prog = bpf_object__find_program_by_name(object, choice.chosen.c_str());
      programs.push_back({bpf_program__fd(prog), prefix + choice.typeWord + "_" + choice.program});
      std::string line = std::string(image.set_name) + " " + choice.program + ": " +
                         choice.flavour + " " + choice.function;
      if (!choice.why.empty()) line += " (no trampoline: " + choice.why + ")";
      choiceLines.push_back(line);
    }
    struct bpf_map* map;
    bpf_object__for_each_map(map, object) {
      if (bpf_map__is_internal(map)) continue;
      Pin pin = {bpf_map__fd(map),
                 std::string(kPinDir) + "/map_" + image.set_name + "_" + bpf_map__name(map)};
      (strcmp(bpf_map__name(map), kRingMapName) == 0 ? rings : maps).push_back(pin);
    }
  }
  PinAll(programs);
  PinAll(maps);
  PinAll(rings);
  for (const std::string& line : choiceLines) printf("kavobpf_loader: %s\n", line.c_str());
  printf("kavobpf_loader: pinned %zu programs and %zu maps under %s\n", programs.size(),
         maps.size() + rings.size(), kPinDir);
  for (struct bpf_object* object : objects) bpf_object__close(object);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  static const struct option kOptions[] = {
      {"ring-size", required_argument, nullptr, 'r'},
      {"probe-flavour", required_argument, nullptr, 'p'},
      {"unload", no_argument, nullptr, 'u'},
      {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0},
  };
  unsigned long long ringSize = 0;
  ProbeFlavour flavour = ProbeFlavour::kAuto;
  bool unload = false;
  opterr = 0;
  int opt;
  while ((opt = getopt_long(argc, argv, "", kOptions, nullptr)) != -1) {
    switch (opt) {
      case 'r':
        ringSize = ParseRingSize(optarg);
        break;
      case 'p':
        if (!kavo::loader::ParseProbeFlavour(optarg, &flavour)) {
          Fail(2, "--probe-flavour must be auto, kprobe or trampoline, got '%s'", optarg);
        }
        break;
      case 'u':
        unload = true;
        break;
      case 'h':
        PrintUsage(stdout);
        return 0;
      default:
        if (optopt == 'r') Fail(2, "--ring-size needs a number of bytes (see --help)");
        if (optopt == 'p') Fail(2, "--probe-flavour needs auto, kprobe or trampoline (see --help)");
        Fail(2, "unknown option '%s' (see --help)", argv[optind - 1]);
    }
  }
  if (optind < argc) Fail(2, "unexpected argument '%s' (see --help)", argv[optind]);

  libbpf_set_print(LibbpfPrint);
  RequireBpfFs();
  return unload ? Unload() : Load(ringSize, flavour);
}
