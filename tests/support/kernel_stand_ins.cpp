#include "support/kernel_stand_ins.h"

#include <bpf/bpf.h>
#include <bpf/btf.h>
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include <android-base/unique_fd.h>

#include "support/harness.h"
#include "support/namespaces.h"
#include "support/processes.h"
#include "utils/kavo_bpf_file.h"

namespace kavo::test {

namespace {

// Pins |fd| at |path| in place of whatever is there.
bool Pin(const android::base::unique_fd& fd, const std::string& path, const std::string& what, std::string* why) {
  unlink(path.c_str());
  return (fd.get() >= 0 && bpf_obj_pin(fd.get(), path.c_str()) == 0) || Refused(what + " for " + path, why);
}

bool CreateAndPin(enum bpf_map_type type, const char* name, uint32_t keySize, uint32_t valueSize,
                  uint32_t entries, const std::string& path, std::string* why) {
  android::base::unique_fd fd(bpf_map_create(type, name, keySize, valueSize, entries, nullptr));
  return Pin(fd, path, std::string("map ") + name, why);
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

namespace {

struct bpf_insn Insn(uint8_t code, uint8_t dst, uint8_t src, int16_t off, int32_t imm) {
  return bpf_insn{code, static_cast<__u8>(dst & 0xf), static_cast<__u8>(src & 0xf), off, imm};
}

// r0 = 0; exit.
const std::vector<struct bpf_insn> kReturnZero = {Insn(BPF_ALU64 | BPF_MOV | BPF_K, BPF_REG_0, 0, 0, 0),
                                                  Insn(BPF_JMP | BPF_EXIT, 0, 0, 0, 0)};

}  // namespace

bool WriteRingRecords(const std::string& ringMapPath, uint32_t type, int count, std::string* why, uint32_t size) {
  android::base::unique_fd ring(bpf_obj_get(ringMapPath.c_str()));
  if (ring.get() < 0) return Refused("bpf_obj_get " + ringMapPath, why);
  size = size < 16 ? 16 : (size + 7) / 8 * 8;
  if (size > 256) size = 256;
  // Zero the record on the stack, put the type in, and hand it to
  // bpf_ringbuf_output(ring, record, size, 0).
  std::vector<struct bpf_insn> prog;
  int16_t base = static_cast<int16_t>(-static_cast<int>(size));
  for (uint32_t at = 0; at < size; at += 8)
    prog.push_back(Insn(BPF_ST | BPF_MEM | BPF_DW, BPF_REG_10, 0, static_cast<int16_t>(base + at), 0));
  prog.push_back(Insn(BPF_ST | BPF_MEM | BPF_W, BPF_REG_10, 0, base, static_cast<int32_t>(type)));
  prog.push_back(Insn(BPF_LD | BPF_DW | BPF_IMM, BPF_REG_1, BPF_PSEUDO_MAP_FD, 0, ring.get()));
  prog.push_back(Insn(0, 0, 0, 0, 0));
  prog.push_back(Insn(BPF_ALU64 | BPF_MOV | BPF_X, BPF_REG_2, BPF_REG_10, 0, 0));
  prog.push_back(Insn(BPF_ALU64 | BPF_ADD | BPF_K, BPF_REG_2, 0, 0, base));
  prog.push_back(Insn(BPF_ALU64 | BPF_MOV | BPF_K, BPF_REG_3, 0, 0, static_cast<int32_t>(size)));
  prog.push_back(Insn(BPF_ALU64 | BPF_MOV | BPF_K, BPF_REG_4, 0, 0, 0));
  prog.push_back(Insn(BPF_JMP | BPF_CALL, 0, 0, 0, BPF_FUNC_ringbuf_output));
  prog.push_back(Insn(BPF_ALU64 | BPF_MOV | BPF_K, BPF_REG_0, 0, 0, 0));
  prog.push_back(Insn(BPF_JMP | BPF_EXIT, 0, 0, 0, 0));

  android::base::unique_fd fd(bpf_prog_load(BPF_PROG_TYPE_SOCKET_FILTER, "kavo_test_write", "GPL", prog.data(), prog.size(), nullptr));
  if (fd.get() < 0) return Refused("loading the record writer", why);
  char packet[64] = {};
  struct bpf_test_run_opts run = {};
  run.sz = sizeof(run), run.data_in = packet, run.data_size_in = sizeof(packet), run.repeat = static_cast<__u32>(count);
  return bpf_prog_test_run_opts(fd.get(), &run) == 0 || Refused("running the record writer", why);
}

bool PinForeignProgram(const std::string& path, std::string* why) {
  android::base::unique_fd fd(bpf_prog_load(BPF_PROG_TYPE_SOCKET_FILTER, "kavo_foreign", "GPL", kReturnZero.data(), 2, nullptr));
  return Pin(fd, path, "a socket filter", why);
}

namespace {

// The id of |name| (of |kind|) in the kernel's BTF; 0 with *why when absent.
__u32 KernelBtfId(const char* name, __u32 kind, std::string* why) {
  struct btf* btf = btf__load_vmlinux_btf();
  if (btf == nullptr) return Refused("reading the kernel's BTF", why);
  int id = btf__find_by_name_kind(btf, name, kind);
  btf__free(btf);
  if (id <= 0) *why = std::string(name) + " is not in the kernel's BTF";
  return id > 0 ? static_cast<__u32>(id) : 0;
}

bool LoadTracingAndPin(const std::vector<struct bpf_insn>& prog, enum bpf_attach_type type,
                       __u32 btfId, const std::string& path, std::string* why) {
  struct bpf_prog_load_opts opts = {};
  opts.sz = sizeof(opts), opts.expected_attach_type = type, opts.attach_btf_id = btfId;
  android::base::unique_fd fd(bpf_prog_load(BPF_PROG_TYPE_TRACING, "kavo_tracing", "GPL", prog.data(), prog.size(), &opts));
  return Pin(fd, path, "a tracing program", why);
}

}  // namespace

bool PinTracingProgram(const std::string& path, const std::string& counterPath, pid_t forker, std::string* why) {
  __u32 btfId = KernelBtfId("btf_trace_sched_process_fork", BTF_KIND_TYPEDEF, why);
  if (btfId == 0) return false;
  if (!CreateAndPin(BPF_MAP_TYPE_ARRAY, "kavo_counter", 4, 8, 1, counterPath, why)) return false;
  android::base::unique_fd counter(bpf_obj_get(counterPath.c_str()));
  // The tracepoint runs in the forking process. If it is |forker|:
  // key = 0; value = lookup(counter, &key); if (value) atomically *value += 1.
  std::vector<struct bpf_insn> prog = {
      Insn(BPF_JMP | BPF_CALL, 0, 0, 0, BPF_FUNC_get_current_pid_tgid),
      Insn(BPF_ALU64 | BPF_RSH | BPF_K, BPF_REG_0, 0, 0, 32),
      Insn(BPF_JMP | BPF_JNE | BPF_K, BPF_REG_0, 0, 9, static_cast<int32_t>(forker)),
      Insn(BPF_ST | BPF_MEM | BPF_W, BPF_REG_10, 0, -4, 0),
      Insn(BPF_LD | BPF_DW | BPF_IMM, BPF_REG_1, BPF_PSEUDO_MAP_FD, 0, counter.get()),
      Insn(0, 0, 0, 0, 0),
      Insn(BPF_ALU64 | BPF_MOV | BPF_X, BPF_REG_2, BPF_REG_10, 0, 0),
      Insn(BPF_ALU64 | BPF_ADD | BPF_K, BPF_REG_2, 0, 0, -4),
      Insn(BPF_JMP | BPF_CALL, 0, 0, 0, BPF_FUNC_map_lookup_elem),
      Insn(BPF_JMP | BPF_JEQ | BPF_K, BPF_REG_0, 0, 2, 0),
      Insn(BPF_ALU64 | BPF_MOV | BPF_K, BPF_REG_1, 0, 0, 1),
      Insn(BPF_STX | BPF_ATOMIC | BPF_DW, BPF_REG_0, BPF_REG_1, 0, BPF_ADD),
      Insn(BPF_ALU64 | BPF_MOV | BPF_K, BPF_REG_0, 0, 0, 0),
      Insn(BPF_JMP | BPF_EXIT, 0, 0, 0, 0),
  };
  return LoadTracingAndPin(prog, BPF_TRACE_RAW_TP, btfId, path, why);
}

bool PinUnattachableTracingProgram(const std::string& path, std::string* why) {
  __u32 btfId = KernelBtfId("bpf_iter_task", BTF_KIND_FUNC, why);
  if (btfId == 0) return false;
  return LoadTracingAndPin(kReturnZero, BPF_TRACE_ITER, btfId, path, why);
}

std::string ThreadNames() {
  std::string names;
  for (const auto& thread : ThreadsOf(0)) names += thread.second + ",";
  return names;
}

}  // namespace kavo::test
