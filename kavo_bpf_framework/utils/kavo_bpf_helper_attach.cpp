// Finding pinned programs, testing their kernel-version condition, and
// attaching them through bcc: tracepoints with bpf_attach_tracepoint, kprobes
// and kretprobes with bpf_attach_kprobe. What is pinned under a kprobe's name
// may instead be its trampoline twin (fentry or fexit), which the loader
// chooses on kernels that cannot attach kprobes; that one is attached through
// a BPF link. The descriptors the attach calls return are deliberately never
// closed: closing one detaches its program.

#include <android-base/properties.h>
#include <android/log.h>
#include <bcc/libbpf.h>
#include <bpf/bpf.h>
#include <errno.h>
#include <string.h>

#include <stdexcept>

#include "utils/kavo_bpf_file.h"
#include "utils/kavo_bpf_helper.h"

namespace Kavo::Bpf {

namespace {

constexpr char kTag[] = "BpfUtils";
constexpr char kKernelVersionProperty[] = "ro.kernel.version";
constexpr char kKprobeEventSuffix[] = "_kavobpf";
constexpr char kProgPrefix[] = "prog_";

// The text after the first '_' of |name|, or "" when there is none.
std::string AfterFirstUnderscore(const std::string& name) {
  size_t underscore = name.find('_');
  return underscore == std::string::npos ? "" : name.substr(underscore + 1);
}

bool StartsWith(const std::string& s, const char* prefix) {
  return s.compare(0, strlen(prefix), prefix) == 0;
}

// Attaches the program |fd| pinned for a kprobe or kretprobe by its own type,
// for every attach path alike: a kprobe program through bcc, as event
// |eventName| on |functionName|; a trampoline program (BPF_PROG_TYPE_TRACING)
// through a BPF link, since its function was fixed when it was loaded. The
// result keeps the program attached while it is open; -1 with errno set.
int AttachToKernelFunction(int fd, bool entry, const std::string& eventName,
                           const std::string& functionName) {
  struct bpf_prog_info info = {};
  __u32 length = sizeof(info);
  if (bpf_obj_get_info_by_fd(fd, &info, &length) == 0 && info.type == BPF_PROG_TYPE_TRACING) {
    int link = bpf_raw_tracepoint_open(nullptr, fd);
    if (link >= 0) return link;
    // libbpf returns -errno. A trampoline refuses a second link of the same
    // program with EBUSY: already attached, which a kprobe says as EEXIST.
    errno = link == -EBUSY ? EEXIST : -link;
    return -1;
  }
  return bpf_attach_kprobe(fd, entry ? BPF_PROBE_ENTRY : BPF_PROBE_RETURN, eventName.c_str(),
                           functionName.c_str(), 0, 0);
}

}  // namespace

int OpenPinnedObject(const std::string& path, bool readOnly) {
  struct bpf_obj_get_opts opts = {};
  opts.sz = sizeof(opts);
  opts.file_flags = readOnly ? BPF_F_RDONLY : 0;
  int fd = bpf_obj_get_opts(path.c_str(), &opts);
  if (fd >= 0) return fd;
  errno = -fd;
  return -1;
}

bool CheckBpfCompatibility(const std::string& condition) {
  if (condition.empty()) return false;
  // A damaged property or condition is an incompatible program, not a crash.
  try {
    int kernel = convertVersionToInt(android::base::GetProperty(kKernelVersionProperty, "0.0"));
    std::string bare = condition.substr(0, condition.size() - 1);
    switch (condition.back()) {
      case '-':
        return kernel <= convertVersionToInt(bare);
      case '+':
        return kernel >= convertVersionToInt(bare);
      default:
        break;
    }
    if (condition.find('-') != std::string::npos) {
      std::vector<std::string> range = Split(condition, "-");
      if (range.size() < 2) return false;
      return kernel >= convertVersionToInt(range[0]) && kernel <= convertVersionToInt(range[1]);
    }
    return kernel == convertVersionToInt(condition);
  } catch (const std::logic_error& e) {
    __android_log_print(ANDROID_LOG_ERROR, kTag,
                        "[CheckBpfCompatibility] bad kernel version or condition: %s (%s)",
                        condition.c_str(), e.what());
    return false;
  }
}

bool IsBpfProg(const std::string& fileName) { return StartsWith(fileName, kProgPrefix); }

int RetrieveProgramFd(const std::string& dir, const std::string& fileName) {
  return OpenPinnedObject(dir + "/" + fileName, true);
}

int RetrieveProgramFd(const std::string& dir, const std::string& set, const std::string& type,
                      const std::string& progName) {
  return OpenPinnedObject(StringPrintf("%s/prog_%s_%s_%s", dir.c_str(), set.c_str(), type.c_str(),
                                       progName.c_str()),
                          true);
}

int AttachTracepointProgram(const std::string& dir, const std::string& set,
                            const std::string& progName, const std::string& category,
                            const std::string& event) {
  int fd = RetrieveProgramFd(dir, set, "tracepoint", progName);
  if (fd == -1) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "[AttachTracepointProgram] Retrieve tracepoint prog failed: %s",
                        progName.c_str());
    return -1;
  }
  return bpf_attach_tracepoint(fd, category.c_str(), event.c_str());
}

int AttachTracepointProgram(const std::string& dir, const std::string& fileName,
                            const std::string& category, const std::string& event) {
  int fd = RetrieveProgramFd(dir, fileName);
  if (fd == -1) {
    __android_log_print(ANDROID_LOG_ERROR, kTag,
                        "[AttachTracepointProgram] Retrieve tracepoint prog failed, subSystem: %s, eventName: %s",
                        category.c_str(), event.c_str());
    return -1;
  }
  return bpf_attach_tracepoint(fd, category.c_str(), event.c_str());
}

int AttachTracepointProgram(const std::string& dir, const std::string& set,
                            const std::string& progName) {
  int fd = RetrieveProgramFd(dir, set, "tracepoint", progName);
  if (fd == -1) fd = RetrieveProgramFd(dir, set);
  if (fd == -1) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "[AttachTracepointProgram] Retrieve tracepoint prog failed: %s",
                        progName.c_str());
    return -1;
  }
  size_t underscore = progName.find('_');
  std::string category = progName.substr(0, underscore);
  std::string event = AfterFirstUnderscore(progName);
  return bpf_attach_tracepoint(fd, category.c_str(), event.c_str());
}

int AttachKProbeProgram(const std::string& dir, const std::string& set,
                        const std::string& progName, const std::string& functionName, bool entry) {
  int fd = RetrieveProgramFd(dir, set, entry ? "kprobe" : "kretprobe", progName);
  if (fd == -1) {
    __android_log_print(ANDROID_LOG_ERROR, kTag,
                        entry ? "[AttachKProbeProgram] Retrieve kprobe prog failed: %s, function: %s"
                              : "[AttachKProbeProgram] Retrieve kretprobe prog failed: %s, function: %s",
                        progName.c_str(), functionName.c_str());
    return -1;
  }
  __android_log_print(ANDROID_LOG_INFO, kTag,
                      entry ? "[AttachKProbeProgram] Attach kprobe prog: enter: progName: %s, functionName: %s"
                            : "[AttachKProbeProgram] Attach kretprobe prog: return: progName: %s, functionName: %s",
                      progName.c_str(), functionName.c_str());
  return AttachToKernelFunction(fd, entry, progName + kKprobeEventSuffix, functionName);
}

int AttachKProbeProgram(const std::string& dir, const std::string& set,
                        const std::string& progName) {
  int fd = RetrieveProgramFd(dir, set, "kprobe", progName);
  if (fd == -1) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "[AttachKProbeProgram] Retrieve kprobe prog failed: %s, prog: %s",
                        set.c_str(), progName.c_str());
    return -1;
  }
  bool entry;
  if (StartsWith(progName, "enter")) {
    entry = true;
  } else if (StartsWith(progName, "return")) {
    entry = false;
  } else {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "[AttachKProbeProgram] (UNKNOW TYPE) kprobe prog failed: %s, prog: %s",
                        set.c_str(), progName.c_str());
    return -1;
  }
  std::string functionName = AfterFirstUnderscore(progName);
  __android_log_print(ANDROID_LOG_INFO, kTag,
                      entry ? "[AttachKProbeProgram] Attach kprobe prog: enter: eventType: %s, eventName: %s"
                            : "[AttachKProbeProgram] Attach kprobe prog: return: eventType: %s, eventName: %s",
                      progName.c_str(), functionName.c_str());
  return AttachToKernelFunction(fd, entry, progName + kKprobeEventSuffix, functionName);
}

int AttachAllKavoBpfProgram(const std::string& dir, const KavoBpfProgTable& table) {
  int failures = 0;
  for (const auto& [set, kinds] : table) {
    for (const auto& [kind, programs] : kinds) {
      for (const std::vector<std::string>& prog : programs) {
        if (prog.size() != 4) {
          __android_log_print(ANDROID_LOG_ERROR, kTag, "Error format!: %s", set.c_str());
          continue;
        }
        const std::string& name = prog[0];
        if (!CheckBpfCompatibility(prog[3])) {
          __android_log_print(ANDROID_LOG_WARN, kTag, "Skip bpf prog: %s, progName: %s, kernelCompat: %s",
                              set.c_str(), name.c_str(), prog[3].c_str());
          continue;
        }
        __android_log_print(ANDROID_LOG_INFO, kTag, "Attach bpf prog start: %s, progName: %s",
                            set.c_str(), name.c_str());
        switch (kind) {
          case KAVO_ATTACH_TRACEPOINT:
            if (AttachTracepointProgram(dir, set, name, prog[1], prog[2]) == -1) {
              __android_log_print(ANDROID_LOG_ERROR, kTag, "Attach tracepoint prog failed: %s, type: %s, msg: %s",
                                  set.c_str(), name.c_str(), strerror(errno));
              ++failures;
            }
            break;
          case KAVO_ATTACH_KPROBE:
            if (AttachKProbeProgram(dir, set, name, prog[1], true) == -1) {
              __android_log_print(ANDROID_LOG_ERROR, kTag, "Attach kprobe prog failed: %s, progname: %s, msg: %s",
                                  set.c_str(), name.c_str(), strerror(errno));
              ++failures;
            }
            break;
          case KAVO_ATTACH_KRETPROBE:
            if (AttachKProbeProgram(dir, set, name, prog[1], false) == -1) {
              __android_log_print(ANDROID_LOG_ERROR, kTag, "Attach kretprobe prog failed: %s, progname: %s, msg: %s",
                                  set.c_str(), name.c_str(), strerror(errno));
              ++failures;
            }
            break;
          default:
            __android_log_print(ANDROID_LOG_ERROR, kTag, "(UNKNOW TYPE) attach prog failed: %s, type: %s",
                                set.c_str(), name.c_str());
            break;
        }
      }
    }
  }
  return failures;
}

int AttachAllKavoBpfProgram(const std::string& dir) {
  int failures = 0;
  ForEachDirEntry(dir.c_str(), [&](const char* entry) {
    std::string fileName(entry);
    if (!IsBpfProg(fileName)) return LineAction::kContinue;
    std::vector<std::string> pieces = Split(fileName, "_");
    if (pieces.size() < 4) {
      __android_log_print(ANDROID_LOG_ERROR, kTag, "(UNKNOW TYPE) attach prog failed: %s, type: %s",
                          fileName.c_str(), "");
      return LineAction::kContinue;
    }
    const std::string& set = pieces[1];
    const std::string& type = pieces[2];
    std::string progName = pieces[3];
    for (size_t i = 4; i < pieces.size(); ++i) progName += "_" + pieces[i];
    __android_log_print(ANDROID_LOG_INFO, kTag, "Attach bpf prog (%s, type: %s) to %s", set.c_str(),
                        type.c_str(), progName.c_str());
    if (type == "tracepoint") {
      if (AttachTracepointProgram(dir, set, progName) == -1 && errno != EEXIST) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "Attach tracepoint prog failed: %s, type: %s, msg: %s",
                            set.c_str(), progName.c_str(), strerror(errno));
        ++failures;
      }
    } else if (type == "kprobe") {
      if (AttachKProbeProgram(dir, set, progName) == -1 && errno != EEXIST) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "Attach kprobe prog failed: %s, type: %s, msg: %s",
                            set.c_str(), progName.c_str(), strerror(errno));
        ++failures;
      }
    } else {
      __android_log_print(ANDROID_LOG_ERROR, kTag, "(UNKNOW TYPE) attach prog failed: %s, type: %s",
                          set.c_str(), type.c_str());
    }
    return LineAction::kContinue;
  });
  return failures;
}

}  // namespace Kavo::Bpf
