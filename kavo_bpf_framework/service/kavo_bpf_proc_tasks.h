#pragma once

// Processes as /proc shows them, read the way the initial task scan reads
// them: the task-init record the scan dispatches for a process, plus what
// tells one process from a later one under the same pid (its start time) and
// whether it still runs (its state). The initial scan and the task-table
// resynchronisation both read /proc through here.
//
// Re-entrant: every call reads its own files.

#include <stdint.h>

#include <functional>
#include <string>

#include "bpf/kavo_bpf_records.h"

namespace Kavo::Bpf {

struct ProcTask {
  // The task-init record for the process, stamped with the boot clock of the
  // read (GetSystemBootNanosencondsTime, as the scan always has).
  kavo_task_init_event event = {};
  // Start time in clock ticks since boot (stat field 21); 0 when not read.
  long long startTicks = 0;
  // Process state (stat field 2): 'R', 'S', 'Z', ...; '\0' when not read.
  char state = '\0';

  // Still running: neither a zombie nor dead. A zombie has exited; only its
  // parent has not reaped it yet.
  bool Alive() const { return state != 'Z' && state != 'X' && state != 'x'; }
};

// Reads /proc/<pidName>/status and stat into |task|. False when the process
// has gone (either file cannot be opened); values that are not numbers are
// left at 0.
bool ReadProcTask(const std::string& pidName, ProcTask* task);

// Calls |visit| for every process of /proc that could be read, in directory
// order. Entries whose name is not all digits are skipped.
void ForEachProcTask(const std::function<void(const ProcTask&)>& visit);

// Boot time in ns of a start time in clock ticks; 0 (not known) for 0 ticks,
// a time that does not fit in 64 bits, or an unknown clock-tick rate.
int64_t ClockTicksToNs(long long ticks);

// Whether a task that started at |startTimeNs| (boot ns, 0 when not known) is
// the process whose stat file says it started at |startTicks|. The two may lie
// a tick apart: a fork record is stamped a little after the kernel's start
// time, and the stat file cuts that to whole ticks. An unknown start (either
// side 0) matches.
bool StartedTogether(int64_t startTimeNs, long long startTicks);

}  // namespace Kavo::Bpf
