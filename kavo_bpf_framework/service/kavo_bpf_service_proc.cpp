// Small /proc readers the event handlers and the dma-buf seeding use to
// complete what the kernel programs report: a process's name and parent, and
// the size and inode behind one descriptor.
//
// Prefixes are matched anywhere in a line and the value is taken from the
// fixed column right after the prefix: the kernel writes every prefix at the
// start of its line. A value that is not a number skips its line.

#include <android/log.h>
#include <errno.h>
#include <string.h>

#include <algorithm>

#include "service/kavo_bpf_service.h"
#include "utils/kavo_bpf_file.h"

namespace Kavo::Bpf {

namespace {

constexpr char kTag[] = "BpfService";

bool Contains(std::string_view line, const std::string& prefix) {
  return line.find(prefix) != std::string_view::npos;
}

// The text after a prefix of |prefixLength| characters at the line's start;
// empty, but still pointing into the line, when nothing follows.
std::string_view ValueAfter(std::string_view line, size_t prefixLength) {
  return line.substr(std::min(prefixLength, line.size()));
}

}  // namespace

int KavoBpfService::getProcessInfo(int pid, UpdateProcessExdata* info) {
  std::string path = StringPrintf(TASK_STATUS_PID_TEMPLATE.c_str(), pid);
  ScopedFile status = OpenForRead(path.c_str());
  if (!status) {
    __android_log_print(ANDROID_LOG_WARN, kTag, "[KavoBpfService][GPI] Task not exists, errno info: %s",
                        strerror(errno));
    return -1;
  }
  ForEachLine(status.get(), [info](std::string_view line) {
    if (Contains(line, TASK_COMM_PREFIX)) {
      std::string_view name = ValueAfter(line, TASK_COMM_PREFIX.size());
      memcpy(info->comm, name.data(), std::min(name.size(), sizeof(info->comm)));
      info->comm[sizeof(info->comm) - 1] = '\0';
    } else if (Contains(line, TASK_PPID_PREFIX)) {
      long long ppid;
      if (ParseDecimal(ValueAfter(line, TASK_PPID_PREFIX.size()), &ppid)) {
        info->ppid = static_cast<int32_t>(ppid);
      }
    }
    return LineAction::kContinue;
  });
  info->pid = pid;
  return 0;
}

long KavoBpfService::GetFdSize(const std::string& path) {
  long size = 0;
  bool opened = ForEachLine(path.c_str(), [&size](std::string_view line) {
    if (!Contains(line, TASK_DMABUF_SIZE_PREFIX)) return LineAction::kContinue;
    long long value;
    if (ParseDecimal(ValueAfter(line, TASK_DMABUF_SIZE_PREFIX.size()), &value)) {
      size = static_cast<long>(value);
    }
    return LineAction::kStop;
  });
  if (!opened) __android_log_print(ANDROID_LOG_WARN, kTag, "Unable to open %s", path.c_str());
  return size;
}

uint64_t KavoBpfService::GetFdInode(const std::string& path) {
  uint64_t inode = 0;
  bool opened = ForEachLine(path.c_str(), [&inode](std::string_view line) {
    if (!Contains(line, TASK_DMABUF_INO_PREFIX)) return LineAction::kContinue;
    unsigned long long value;
    if (ParseUnsignedDecimal(ValueAfter(line, TASK_DMABUF_INO_PREFIX.size()), &value)) inode = value;
    return LineAction::kStop;
  });
  if (!opened) __android_log_print(ANDROID_LOG_WARN, kTag, "Unable to open %s", path.c_str());
  return inode;
}

}  // namespace Kavo::Bpf
