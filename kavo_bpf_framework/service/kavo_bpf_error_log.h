#pragma once

// The error log: a small text file, newest record first, in which the service
// keeps the data it lost (dropped sends, damaged frames, trimmed queues) with
// the process and thread that met the loss, for reading after the fact.
//
//   ----------                      one record: eight lines and an empty one
//   Time: 2026-11-21 12:00:00
//   Pid: 812
//   Tid: 815
//   Cmdline: /system/bin/kavobpfd --prop a=b
//   Comm: BpfServiceTr
//   ErrorCode: 1
//   Error: Send data 10 times failed. bufferCursor: 0, bufferDataCursor: 32768
//
// The file holds the newest record plus at most 4999 older lines. A start of
// the service moves the previous run's log to "error.old.log".
//
// Thread-safe: records are serialised by a process-wide mutex, so two threads
// losing data at once both get their record.

#include <string>

#include "utils/kavo_bpf_export.h"
#include "utils/kavo_bpf_ipc_error.h"

namespace Kavo::Bpf {

extern const char* const KAVO_ERROR_LOG_DIR;       // ".../kavobpfframework/"
extern const char* const KAVO_ERROR_LOG_PATH;      // ".../error.log"
extern const char* const KAVO_ERROR_OLD_LOG_PATH;  // ".../error.old.log"

// Creates the log directory and moves "error.log" to "error.old.log". Returns
// the result of rename() (-1 when there was nothing to move).
KAVO_EXPORT int InitBpfServiceErrorLog();

// Adds one record at the top of "error.log".
KAVO_EXPORT void RecordBpfServiceErrorInfo(int errorCode, std::string const& error);

// Makes the IPC framework's losses (codes 1 to 8, KavoIpcErrorCode) records
// of this log. The service installs it when it is built.
KAVO_EXPORT void InstallErrorLogAsIpcRecorder();

}  // namespace Kavo::Bpf
