#include "bpf_test_maps.h"

#include <bpf/bpf.h>
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include "ns_harness.h"
#include "utils/kavo_bpf_file.h"

namespace kavo::test {

namespace {

bool CreateAndPin(enum bpf_map_type type, const char* name, uint32_t keySize, uint32_t valueSize,
                  uint32_t entries, const std::string& path, std::string* why) {
  android::base::unique_fd fd(bpf_map_create(type, name, keySize, valueSize, entries, nullptr));
  if (fd.get() < 0) {
    *why = std::string("bpf_map_create ") + name + ": " + strerror(errno);
    return false;
  }
  if (bpf_obj_pin(fd.get(), path.c_str()) != 0) {
    *why = "bpf_obj_pin " + path + ": " + strerror(errno);
    return false;
  }
  return true;
}

}  // namespace

bool PinRingMaps(std::string* why) {
  mkdir("/sys/fs/bpf/kavo", 0755);
  for (const char* set : {"KavoBpfDefineset", "KavoBpfGplDefineset"}) {
    std::string base = std::string("/sys/fs/bpf/kavo/map_") + set;
    if (!CreateAndPin(BPF_MAP_TYPE_RINGBUF, "ringbuf_map", 0, 0, 4096 * 16, base + "_ringbuf_map", why) ||
        !CreateAndPin(BPF_MAP_TYPE_ARRAY, "ringbuf_status", 4, 8, 5, base + "_ringbuf_status", why)) {
      return false;
    }
  }
  return true;
}

int64_t ReadControlWord(const std::string& statusMapPath) {
  android::base::unique_fd fd(bpf_obj_get(statusMapPath.c_str()));
  uint32_t key = 0;
  uint64_t value = 0;
  if (fd.get() < 0 || bpf_map_lookup_elem(fd.get(), &key, &value) != 0) return -1;
  return static_cast<int64_t>(value);
}

bool WriteControlWord(const std::string& statusMapPath, uint64_t word) {
  android::base::unique_fd fd(bpf_obj_get(statusMapPath.c_str()));
  uint32_t key = 0;
  return fd.get() >= 0 && bpf_map_update_elem(fd.get(), &key, &word, 0) == 0;
}

std::string ThreadNames() {
  std::string names;
  Kavo::Bpf::ForEachDirEntry("/proc/self/task", [&names](const char* tid) {
    if (tid[0] == '.') return Kavo::Bpf::LineAction::kContinue;
    std::string comm = ReadFile(std::string("/proc/self/task/") + tid + "/comm");
    if (!comm.empty() && comm.back() == '\n') comm.pop_back();
    names += comm + ",";
    return Kavo::Bpf::LineAction::kContinue;
  });
  return names;
}

}  // namespace kavo::test
