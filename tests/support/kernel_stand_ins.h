#pragma once

// Hand-made stand-ins for what the loader pins, for tests that need a ring
// buffer or status map at the service's paths but no programs, or a program
// of a particular kind where the service looks for one.

#include <stdint.h>
#include <sys/types.h>

#include <string>

namespace kavo::test {

// Creates and pins, for both rings, a ring buffer and a status map (u32 key,
// u64 value, 5 entries) at the service's paths. False with *why when the
// kernel refuses.
bool PinRingMaps(std::string* why);
// Control word (key 0) of a pinned status map, or key 0 of any pinned u32 ->
// u64 array (the counter of PinTracingProgram); -1 when it cannot be read.
int64_t ReadControlWord(const std::string& statusMapPath);
bool WriteControlWord(const std::string& statusMapPath, uint64_t word);
// Has the kernel write |count| records of |size| bytes (at least 16, header
// only: u32 |type|, zero padding and time) into the ring buffer pinned at
// |ringMapPath|, through a small program run with BPF_PROG_TEST_RUN: records
// no real program would write (type 9, say). False with *why when the kernel
// refuses.
bool WriteRingRecords(const std::string& ringMapPath, uint32_t type, int count, std::string* why, uint32_t size = 16);
// Pins at |path| a program of a kind the kernel never attaches to a
// tracepoint or a probe (a socket filter that returns 0), standing in for a
// pinned program the kernel refuses to attach. False with *why when the
// kernel refuses to load even that.
bool PinForeignProgram(const std::string& path, std::string* why);
// Pins at |path| a program of the loader's trampoline type
// (BPF_PROG_TYPE_TRACING) that a BPF link attaches, standing in for a twin
// the loader pins in a kprobe's place where the kernel takes trampolines. It
// runs on the sched_process_fork raw tracepoint, which every kernel with BTF
// lets it use, and adds 1 to key 0 of an array map (u32 key, u64 value) that
// it creates and pins at |counterPath| for each fork of process |forker|.
// False with *why when the kernel refuses.
bool PinTracingProgram(const std::string& path, const std::string& counterPath, pid_t forker, std::string* why);
// Pins at |path| a tracing program that no link attaches (a task iterator).
bool PinUnattachableTracingProgram(const std::string& path, std::string* why);
// Names of the calling process's threads.
std::string ThreadNames();

}  // namespace kavo::test
