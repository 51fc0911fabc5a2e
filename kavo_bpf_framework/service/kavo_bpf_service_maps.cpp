// Seeding the pinned maps the kernel programs keep for descriptor and dma-buf
// accounting. The programs only see what changes after they are attached, so
// the service fills the maps once from /proc:
//   initBpfMap         opens the two process-level dma-buf maps and keeps them;
//   initFdBpfProg      one open_fd_caller_map record per process;
//   initDmabufBpfProg  every dma-buf, each process's dma-buf total.
// The kernel programs may update the same keys meanwhile; seeding overwrites.

#include <android/log.h>
#include <bpf/bpf.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "service/kavo_bpf_service.h"
#include "utils/kavo_bpf_file.h"

namespace Kavo::Bpf {

namespace {

constexpr char kTag[] = "BpfService";
constexpr char kFdMapPath[] = "/sys/fs/bpf/kavo/map_KavoBpfDefineset_open_fd_caller_map";
constexpr char kGplMapPrefix[] = "/sys/fs/bpf/kavo/map_KavoBpfGplDefineset_";
// Fields of one /proc/<pid>/maps line: address, perms, offset, dev, inode, path.
constexpr size_t kMapsFields = 6;

std::string GplMapPath(const char* name) { return std::string(kGplMapPrefix) + name; }

bool IsDmabufTarget(const std::string& target) {
  return target.size() > 6 && target.find(KavoBpfService::TASK_DMABUF_PREFIX) != std::string::npos;
}

// Calls |visit| with the name of every all-digits entry of /proc.
void ForEachProcess(const std::function<void(const std::string& pidName)>& visit) {
  ForEachDirEntry(KavoBpfService::PROC_FS_PATH.c_str(), [&visit](const char* entry) {
    std::string name(entry);
    if (IsDigits(name)) visit(name);
    return LineAction::kContinue;
  });
}

}  // namespace

int KavoBpfService::initBpfMap() {
  processInodeMapFd.reset(OpenPinnedObject(DMABUF_BPF_PROCESS_INODE_MAP_PATH));
  if (processInodeMapFd.get() < 0) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "[KavoBpfService][InitBpfMap] get processInodeMap failed: %s",
                        strerror(errno));
    errno = 0;
    return -1;
  }
  processMmapInfosFd.reset(OpenPinnedObject(DMABUF_BPF_PROCESS_MMAP_INFOS_PATH));
  if (processMmapInfosFd.get() < 0) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "[KavoBpfService][InitBpfMap] get processMmapInfos failed: %s",
                        strerror(errno));
    errno = 0;
    return -1;
  }
  return 0;
}

void KavoBpfService::initFdBpfProg() {
  __android_log_print(ANDROID_LOG_ERROR, kTag, "[KavoBpfService][INIT] update open_fd_caller_map !");
  android::base::unique_fd mapFd(OpenPinnedObject(kFdMapPath));
  if (mapFd.get() < 0) {
    __android_log_print(ANDROID_LOG_ERROR, kTag,
                        "[KavoBpfService][INIT] get map_KavoBpfDefineset_open_fd_caller_map(%d) failed! %s", -1,
                        strerror(errno));
    return;
  }
  // Cleared once and reused: a shorter name leaves the tail of the previous
  // process's longer name in place. Readers of the map rely on these bytes
  // staying exactly as they always were.
  kavo_fd_info value = {};
  ForEachProcess([&](const std::string& pidName) {
    std::string statusPath = StringPrintf(TASK_STATUS_TEMPLATE.c_str(), pidName.c_str());
    bool opened = ForEachLine(statusPath.c_str(), [&value](std::string_view line) {
      if (line.size() > 5 && line.find(TASK_COMM_PREFIX) != std::string_view::npos) {
        std::string_view name = line.substr(std::min(line.size(), TASK_COMM_PREFIX.size()));
        memcpy(value.comm, name.data(), std::min(name.size(), sizeof(value.comm)));
        value.comm[sizeof(value.comm) - 1] = '\0';
      }
      return LineAction::kContinue;
    });
    if (!opened) return;
    uint64_t fdCount = 0;
    std::string fdDir = StringPrintf(TASK_FD_TEMPLATE.c_str(), pidName.c_str());
    if (!ForEachDirEntry(fdDir.c_str(), [&fdCount](const char* fd) {
          if (fd[0] != '.') ++fdCount;
          return LineAction::kContinue;
        })) {
      return;
    }
    int32_t pid = atoi(pidName.c_str());
    value.pid = pid;
    value.fd_count = fdCount;
    value.reported_fd_count = fdCount;
    if (bpf_map_update_elem(mapFd.get(), &pid, &value, BPF_ANY) != 0) {
      __android_log_print(ANDROID_LOG_ERROR, kTag, "[KavoBpfService][INIT] update open_fd_caller_map failed! %s",
                          strerror(errno));
    }
  });
}

void KavoBpfService::initDmabufBpfProg() {
  dmabufBuffers.clear();
  dmabufProcesses.clear();
  dmabufFdCounts.clear();
  dmabufMappings.clear();

  struct MapToOpen {
    const char* name;
    const char* failure;
    android::base::unique_fd fd;
  } maps[] = {
      {"dmabuf_allocate_map", "[KavoBpfService][INIT] get dmabufAllocateMap(%d) failed! %s", {}},
      {"dmabuf_size_map", "[KavoBpfService][INIT] get dmabufSizeMap(%d) failed! %s", {}},
      {"dmabuf_perprocess_size_map", "[KavoBpfService][INIT] get dmabufPerprocessSizeMap(%d) failed! %s", {}},
      {"process_inode_map", "[KavoBpfService][INIT] get processInodeMap(%d) failed! %s", {}},
      {"process_mmap_infos", "[KavoBpfService][INIT] get processMmapInfos(%d) failed! %s", {}},
  };
  for (MapToOpen& map : maps) {
    map.fd.reset(OpenPinnedObject(GplMapPath(map.name)));
    if (map.fd.get() < 0) {
      __android_log_print(ANDROID_LOG_ERROR, kTag, map.failure, -1, strerror(errno));
      return;
    }
  }
  int allocateMap = maps[0].fd.get();
  int sizeMap = maps[1].fd.get();
  int perProcessSizeMap = maps[2].fd.get();

  ForEachProcess([this](const std::string& pidName) {
    int pid = atoi(pidName.c_str());
    std::string fdDir = StringPrintf(TASK_FD_TEMPLATE.c_str(), pidName.c_str());
    int64_t total = 0;
    bool opened = ForEachDirEntry(fdDir.c_str(), [&](const char* fdName) {
      if (strcmp(fdName, ".") == 0 || strcmp(fdName, "..") == 0) return LineAction::kContinue;
      std::string target = ReadSymlink((fdDir + "/" + fdName).c_str());
      if (!IsDmabufTarget(target)) return LineAction::kContinue;
      std::string fdinfo = StringPrintf(TASK_FDINFO_TEMPLATE.c_str(), pidName.c_str(), fdName);
      long size = GetFdSize(fdinfo);
      if (size == 0) return LineAction::kContinue;
      uint64_t inode = GetFdInode(fdinfo);
      if (inode == 0) return LineAction::kContinue;
      ++dmabufFdCounts[pid][static_cast<unsigned>(inode)];
      total += size;
      // A buffer several processes hold names the last one met in the walk.
      dmabufBuffers[inode] = kavo_dmabuf_buffer{pid, 0, static_cast<int64_t>(size)};
      return LineAction::kContinue;
    });
    if (!opened || total == 0) return;
    dmabufProcesses[pid] = dmabuf_stat{total, 0};

    std::string mapsPath = StringPrintf(TASK_MAPS_TEMPLATE.c_str(), pidName.c_str());
    std::map<unsigned, int>& mappings = dmabufMappings[pid];
    if (!ForEachLine(mapsPath.c_str(), [&mappings](std::string_view line) {
          std::vector<std::string> fields = Split(std::string(line), " ");
          if (fields.size() != kMapsFields || !IsDmabufTarget(fields[5])) return LineAction::kContinue;
          unsigned long long inode;
          std::vector<std::string> range = Split(fields[0], "-");
          if (!ParseUnsignedDecimal(fields[4], &inode) || range.size() != 2) return LineAction::kContinue;
          char* end = nullptr;
          strtoull(range[0].c_str(), &end, 16);
          if (end == range[0].c_str()) return LineAction::kContinue;
          // One more mapping of this buffer in the process.
          ++mappings[static_cast<unsigned>(inode)];
          return LineAction::kContinue;
        })) {
      __android_log_print(ANDROID_LOG_WARN, kTag, "[KavoBpfService][IMIT] Task not exists, so we skip it (%s)",
                          mapsPath.c_str());
    }
  });

  for (auto& [inode, buffer] : dmabufBuffers) {
    uint64_t key = inode;
    if (bpf_map_update_elem(allocateMap, &key, &buffer, BPF_ANY) != 0) {
      __android_log_print(ANDROID_LOG_ERROR, kTag, "[KavoBpfService][INIT] update dmabuf allocate map failed! %s",
                          strerror(errno));
    }
  }
  for (auto& [pid, stat] : dmabufProcesses) {
    int32_t key = pid;
    if (bpf_map_update_elem(sizeMap, &key, &stat, BPF_ANY) != 0) {
      __android_log_print(ANDROID_LOG_ERROR, kTag, "[KavoBpfService][INIT] update dmabufSizeMap failed! %s",
                          strerror(errno));
    }
    if (bpf_map_update_elem(perProcessSizeMap, &key, &stat, BPF_ANY) != 0) {
      __android_log_print(ANDROID_LOG_ERROR, kTag,
                          "[KavoBpfService][INIT] update dmabufPerprocessSizeMap failed! %s", strerror(errno));
    }
  }
}

}  // namespace Kavo::Bpf
