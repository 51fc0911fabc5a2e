#pragma once

// Dispatch of received packages. IpcPackageHandler splits a connection's read
// buffer into first-level frames, checks each second-level package and hands
// its body to the handler registered for its type. IpcReqCallBackManager, for
// the requesting end, hands out request ids and calls the callback registered
// for a response's reqId, once.
//
// IpcPackageHandler takes no lock: its map is fixed at construction and it
// runs on the IPC thread that owns the buffer. IpcReqCallBackManager is
// thread-safe; a callback runs under its mutex and must not call back into it.

#include <functional>
#include <map>
#include <mutex>

#include "utils/kavo_bpf_export.h"
#include "utils/kavo_bpf_ipc_buffer.h"
#include "utils/kavo_bpf_ipc_package.h"

// fd, second-level body, body size (the header's size). -1 stops the reading
// of this buffer.
using IpcPackageHandlerFunc = std::function<int(int fd, char* body, unsigned size)>;
// reqId, result, response data, data size.
using IpcReqCallBack = std::function<int(unsigned reqId, int result, char* data, unsigned dataSize)>;

class KAVO_EXPORT IpcPackageHandler {
 public:
  // An entry holding an empty function accepts and ignores that type.
  explicit IpcPackageHandler(std::map<unsigned, IpcPackageHandlerFunc> handlers);

  // 1 when every complete frame was handled (or there was none), 0 when a
  // handler returned -1 (later frames stay unread).
  int handleAllIpcPackageInBuffer(int fd, BufferState* readBuffer);
  // The handler's result, or 0 when the type has no handler.
  int handleSecondIpcPackage(int fd, char* package, unsigned size);

 private:
  std::map<unsigned, IpcPackageHandlerFunc> handlers_;
};

class KAVO_EXPORT IpcReqCallBackManager {
 public:
  IpcReqCallBackManager() = default;

  unsigned getReqId();
  // True when no callback was stored for reqId before (it is replaced otherwise).
  bool addIpcReqCallBack(unsigned reqId, IpcReqCallBack callback);
  bool delIpcReq(unsigned reqId);
  // |resp| is a received response body: the header with dataSize bytes of
  // data directly behind it.
  bool handleReqCallBack(const KavoRespIpcPackageHeader* resp);

 private:
  unsigned nextReqId_ = 0;
  std::mutex mutex_;
  std::map<unsigned, IpcReqCallBack> callbacks_;
};
