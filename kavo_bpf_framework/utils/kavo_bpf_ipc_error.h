#pragma once

// Where the IPC framework reports the data it loses. The framework itself
// only logs; whoever uses it decides whether a loss is also kept somewhere
// (the service keeps it in its error log) by installing a recorder. With no
// recorder installed, nothing is recorded and nothing is written to disk, so
// a client program can link the framework alone.
//
//   code  loss                                               error text
//   1     a send buffer dropped after 11 blocked sends       "Send data 10 times failed. ..."
//   2     a damaged incoming frame, buffered bytes dropped   "Ipc package damage, ..."
//   3-6   a package queue trimmed (one code per append kind) "B&A Ipc Package queue full 10000"
//   7, 8  a package too big for any send buffer, dropped     "fill...IpcPackageToBuffer ipc package damaged"
//
// Thread-safe: the recorder is installed and read atomically; it is called
// on whichever thread met the loss (the IPC loop or a producer).

#include <string>

#include "utils/kavo_bpf_export.h"

enum KavoIpcErrorCode : int {
  KAVO_ERROR_SEND_DROPPED = 1,
  KAVO_ERROR_DAMAGED_FRAME = 2,
  KAVO_ERROR_QUEUE_FULL_PACKAGE = 3,
  KAVO_ERROR_QUEUE_FULL_SECOND_LEVEL = 4,
  KAVO_ERROR_QUEUE_FULL_REQUEST = 5,
  KAVO_ERROR_QUEUE_FULL_RESPONSE = 6,
  KAVO_ERROR_FILL_DAMAGED = 7,
  KAVO_ERROR_FILL_NEXT_DAMAGED = 8,
};

using IpcErrorRecorder = void (*)(int errorCode, const std::string& error);

// Installs |recorder| for the whole process (null: record nothing); returns
// the one installed before.
KAVO_EXPORT IpcErrorRecorder SetIpcErrorRecorder(IpcErrorRecorder recorder);
// Whether a recorder is installed: lets a caller skip building a costly text.
bool IpcErrorRecorderInstalled();
// Hands one loss to the installed recorder, if any.
void RecordIpcError(int errorCode, const std::string& error);
