#include "support/namespaces.h"

#include <android-base/file.h>
#include <errno.h>
#include <sched.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kavo::test {

bool MountFakeProc(bool keepOwnProc, std::string* why) {
  if (mount("tmpfs", "/proc", "tmpfs", 0, "mode=0755") != 0) return Refused("tmpfs on /proc", why);
  if (!keepOwnProc) return true;
  mkdir("/proc/.host", 0555);
  if (mount("proc", "/proc/.host", "proc", 0, nullptr) != 0) return Refused("procfs on /proc/.host", why);
  // LeakSanitizer looks at this process by its number, the rest by "self".
  const std::string own = std::to_string(getpid());
  if (symlink(".host/self", "/proc/self") != 0 || symlink(".host/thread-self", "/proc/thread-self") != 0 ||
      symlink((".host/" + own).c_str(), ("/proc/" + own).c_str()) != 0) {
    return Refused("linking /proc/self", why);
  }
  return true;
}

bool EnterPrivateNamespaces(const PrivateMounts& mounts, std::string* why) {
  if (unshare(CLONE_NEWNS | (mounts.network ? CLONE_NEWNET : 0)) != 0) return Refused("unshare", why);
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return Refused("making / private", why);
  mkdir("/data", 0755);
  if (mount("tmpfs", "/data", "tmpfs", 0, "mode=0755") != 0) return Refused("tmpfs on /data", why);
  if (mounts.mnt && mount("tmpfs", "/mnt", "tmpfs", 0, "mode=0755") != 0) return Refused("tmpfs on /mnt", why);
  if (mounts.bpffs) {
    mkdir("/sys/fs/bpf", 0700);
    if (mount("bpf", "/sys/fs/bpf", "bpf", 0, "mode=0700") != 0) return Refused("no bpffs: mount -t bpf", why);
  }
  // tracefs is one instance system-wide; mounted here only for bcc to find
  // the tracepoint ids when the host has not mounted it.
  mount("tracefs", "/sys/kernel/tracing", "tracefs", 0, nullptr);
  return !mounts.fakeProc || MountFakeProc(mounts.keepOwnProc, why);
}

void MakeDirs(const std::string& path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
    mkdir(path.substr(0, slash).c_str(), 0755);
  mkdir(path.c_str(), 0755);
}

bool WriteFile(const std::string& path, const std::string& content) {
  MakeDirs(path.substr(0, path.rfind('/')));
  return android::base::WriteStringToFile(content, path);
}

std::string ReadFile(const std::string& path) {
  std::string content;
  return android::base::ReadFileToString(path, &content) ? content : std::string();
}

bool PathExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

size_t Occurrences(const std::string& text, const std::string& needle) {
  size_t n = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
  return n;
}

bool Refused(const std::string& what, std::string* why) {
  *why = what + ": " + strerror(errno);
  return false;
}

}  // namespace kavo::test
