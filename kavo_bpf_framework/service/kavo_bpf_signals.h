#pragma once

// The diagnostic signals of the service:
//
//   50  DumpState                         the state record, "bpfservice_state.csv"
//   51  HandleDumpSignal                  task table, all tasks, full columns
//   52  HandleNonKernelDumpSignal         tasks with resident memory, full
//   53  HandleDumpSignalNormal            all tasks, short columns
//   54  HandleNonKernelDumpSignalNormal   tasks with resident memory, short
//       (each runs the dump registered for it with RegisterTaskDump)
//
// A handler only writes its signal number into a pipe, which is
// async-signal-safe; the "BpfServiceDump" thread (CPUs 0-2, started once with
// the handlers) reads the pipe and writes the file on an ordinary thread, so
// a dump may take locks and use streams. Requests that arrive while a dump
// is being written are served in turn.
//
//   RegisterTaskDump(51, [] { ...write the full dump... });
//   InstallDumpSignalHandlers();   // each ring monitor does this
//   kill(getpid(), 51);
//
// Thread-safe.

#include <stdint.h>

#include <functional>

namespace Kavo::Bpf {

constexpr int kSignalDumpState = 50;
constexpr int kSignalDumpTasks = 51;
constexpr int kSignalDumpNonKernelTasks = 52;
constexpr int kSignalDumpTasksNormal = 53;
constexpr int kSignalDumpNonKernelTasksNormal = 54;

// Starts the dump thread (first call only) and installs the five handlers.
void InstallDumpSignalHandlers();

// Makes |dump| the work of signal |signalNumber| (51 to 54) on the dump
// thread, replacing an earlier registration. Until something is registered
// the signal does nothing. False for any other signal number.
bool RegisterTaskDump(int signalNumber, std::function<void()> dump);

// Queues the dump of |signalNumber| for the dump thread. Async-signal-safe;
// does nothing before InstallDumpSignalHandlers().
void RequestDump(int signalNumber);

// How many requests the dump thread has finished so far.
uint64_t CompletedDumps();

// Signal handlers 51 to 54 (signal 50's is DumpState, kavo_bpf_state.h).
void HandleDumpSignal(int signalNumber);
void HandleNonKernelDumpSignal(int signalNumber);
void HandleDumpSignalNormal(int signalNumber);
void HandleNonKernelDumpSignalNormal(int signalNumber);

}  // namespace Kavo::Bpf
