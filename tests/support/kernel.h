#pragma once

// The kernel side as the tests set it up: the real programs loaded and pinned
// by kavobpf_loader (inside a RunInNamespace body, so the pins are private to
// the test), what the running kernel offers, and a plain reader of a pinned
// ring for tests that look at the records themselves.
//
//   kavo::test::RunInNamespace([] {
//     std::string why;
//     if (!kavo::test::BpfAvailable(&why)) KAVO_KERNEL_SKIP(why);
//     ASSERT_TRUE(kavo::test::LoadKernelSide(&why)) << why;
//     ...
//   });
//
// Attached programs see the whole machine: tests pick out the records of the
// processes they made.

#include <sys/types.h>

#include <string>
#include <vector>

#include "kavobpf_kernel_version.h"

namespace Kavo::Bpf {
class KavoBpfService;
}  // namespace Kavo::Bpf

namespace kavo::test {

// Whether the kernel lets this process create a BPF ring buffer.
bool BpfAvailable(std::string* why);

// Runs kavobpf_loader with |args|; false with its output in *why. Its output
// goes to *output too, when given.
bool LoadKernelSide(std::string* why, const std::vector<std::string>& args = {}, std::string* output = nullptr);

// What kavobpf_loader says it pinned in the place of the kprobe program
// |program| of |set|: the flavour ("kprobe", "kretprobe", "fentry" or
// "fexit") and the function, from its line "<set> <program>: <flavour>
// <function>[ (no trampoline: <why>)]". Empty fields when there is no line.
struct PinnedProbe {
  std::string flavour, function;
};
PinnedProbe PinnedProbeOf(const std::string& loaderOutput, const std::string& set, const std::string& program);
// Whether what the loader pinned attaches on this kernel: a trampoline twin
// does (the loader pins one only where the kernel loaded it), a kprobe where
// the kernel attaches kprobes to its function.
bool PinnedProbeAttaches(const PinnedProbe& pinned);

// Every path kavobpf_loader pins that the service and its seeding open:
// each catalogue program, both rings with their status maps, lost-record
// counters, record counters and consumer words, the fd map and the dma-buf
// maps.
std::vector<std::string> LoaderPins();

// Starts the service in this process as the platform would, once the kernel
// side is pinned, on the running kernel's version; returns once both
// monitors have switched their producers on, so that every program the
// kernel accepts is attached and both rings are polled. Null with *why when
// something refused.
Kavo::Bpf::KavoBpfService* StartServiceOnPinnedKernelSide(std::string* why);
// LoadKernelSide(why, loaderArgs), then the above.
Kavo::Bpf::KavoBpfService* StartServiceOnKernel(std::string* why, const std::vector<std::string>& loaderArgs = {});

// "major.minor" of the running kernel, as ro.kernel.version would hold it.
using ::kavo::RunningKernelVersion;

// Every record waiting in the ring pinned at |ringMapPath|, taken out of it.
std::vector<std::string> DrainRing(const std::string& ringMapPath);

}  // namespace kavo::test
