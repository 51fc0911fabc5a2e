#include "fuzz_support.h"

#include <android/log.h>
#include <errno.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace kavo::fuzz {

namespace {

bool Refused(const char* what) {
  fprintf(stderr, "fuzz: %s: %s\n", what, strerror(errno));
  return false;
}

void DropBelowFatal(const struct __android_logger_data* data, const char* message) {
  if (data->priority >= ANDROID_LOG_FATAL) __android_log_stderr_logger(data, message);
}

}  // namespace

bool PrivateMounts(const Mounts& mounts) {
  if (unshare(CLONE_NEWNS) != 0) return Refused("unshare(CLONE_NEWNS)");
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return Refused("making / private");
  mkdir("/data", 0755);
  if (mount("tmpfs", "/data", "tmpfs", 0, "mode=0755") != 0) return Refused("tmpfs on /data");
  if (mounts.bpffs && mount("bpf", "/sys/fs/bpf", "bpf", 0, "mode=0700") != 0) return Refused("bpffs");
  if (mounts.fakeProc) {
    if (mount("tmpfs", "/proc", "tmpfs", 0, "mode=0755") != 0) return Refused("tmpfs on /proc");
    mkdir("/proc/.host", 0555);
    if (mount("proc", "/proc/.host", "proc", 0, nullptr) != 0) return Refused("procfs on /proc/.host");
    // LeakSanitizer looks at this process by its number, the rest by "self".
    const std::string own = std::to_string(getpid());
    if (symlink(".host/self", "/proc/self") != 0 || symlink(".host/thread-self", "/proc/thread-self") != 0 ||
        symlink((".host/" + own).c_str(), ("/proc/" + own).c_str()) != 0) {
      return Refused("linking /proc/self");
    }
  }
  return true;
}

void QuietLog() { __android_log_set_logger(DropBelowFatal); }

}  // namespace kavo::fuzz
