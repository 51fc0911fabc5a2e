// Fuzzes the receive path of one connection: the completeness check of
// first-level frames, the split of a read buffer into frames, and the
// dispatch of second-level packages to a handler map (requests, responses
// through IpcReqCallBackManager, an ignored type and an unknown one).
//
// Input: byte 0 picks the read buffer size. Pass 1 takes the rest as raw
// bytes in a buffer and walks it with CheckIpcPackageComplete and read(),
// so any garbage, damaged sizes included, reaches the framing. Pass 2 reads
// the rest as a list of items that make up a byte stream:
//
//   op % 4 == 0  a frame:        type (0..4), body length, body bytes
//   op % 4 == 1  a short frame:  0..7 body bytes, no room for a header
//   op % 4 == 2  a damaged size: too big for the buffer, or wrapping
//   op % 4 == 3  a receive size: how many bytes the next receive takes
//
// and feeds the stream the way the endpoint does: compaction, one receive of
// the chosen size, then handleAllIpcPackageInBuffer. Handlers read every byte
// they are given, so a read past a package shows under AddressSanitizer.
//
// The fatal checks of the dispatch (a second-level size that disagrees with
// its frame; a header that cannot be read after the completeness check) would
// stop the search at the first random frame, so they are avoided by
// construction: every generated frame carries a second-level size that agrees
// with its length, and after the read buffer was dropped (a damaged size, or
// a handler's -1 closing the connection) the stream resumes at the next item
// boundary, as a client that reconnects would, never in the middle of a frame.
// Error-log records of damaged frames go to a private tmpfs over /data.

#include <string.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "support/wire.h"
#include "utils/kavo_bpf_ipc_helper.h"

namespace {

constexpr size_t kBufferSizes[] = {16, 64, 300, 4096, 32768};

// Touches every byte, so that an out-of-bounds range faults under ASan;
// returns 0, a handler's "go on".
volatile uint32_t gSink;
int Touch(const char* data, size_t size) {
  uint32_t sum = 0;
  for (size_t i = 0; i < size; ++i) sum += static_cast<uint8_t>(data[i]);
  gSink = sum;
  return 0;
}

// Pass 2: the items as one byte stream, where each item starts, and the sizes of the receives in turn.
struct Stream {
  std::string bytes;
  std::vector<size_t> boundaries, receives;
};

Stream BuildStream(kavo::fuzz::Input* input, size_t bufferSize) {
  Stream stream;
  while (!input->empty()) {
    const uint8_t op = input->Byte() % 4;
    if (op == 3) {
      stream.receives.push_back(1 + input->U16() % bufferSize);
      continue;
    }
    stream.boundaries.push_back(stream.bytes.size());
    if (op == 0) {
      const uint32_t type = input->Byte() % 5;
      stream.bytes += kavo::test::PackageFrame(type, input->Bytes(input->U16() % (bufferSize - 12 + 1)));
    } else if (op == 1) {
      stream.bytes += kavo::test::RawFrame(input->Bytes(input->Byte() % 8));
    } else {  // a size alone, too big for the buffer or wrapping
      const uint32_t tooBig = static_cast<uint32_t>(bufferSize) - 3, pick = input->U32();
      stream.bytes += kavo::test::U32(pick >= tooBig ? pick : tooBig + pick % 8);
    }
  }
  stream.boundaries.push_back(stream.bytes.size());
  return stream;
}

// The stream through the endpoint's receive steps and the dispatch.
void FeedStream(const Stream& stream, size_t bufferSize) {
  IpcReqCallBackManager callbacks;
  for (unsigned reqId = 0; reqId < 4; ++reqId)
    callbacks.addIpcReqCallBack(reqId, [](unsigned, int, char* data, unsigned size) { return Touch(data, size); });
  IpcPackageHandler handler(std::map<unsigned, IpcPackageHandlerFunc>{
      // A request the owner refuses (0xEE first): the connection is closed.
      {KAVO_IPC_REQUEST, [](int, char* body, unsigned size) { Touch(body, size); return size > 0 && body[0] == '\xEE' ? -1 : 0; }},
      {KAVO_IPC_RESPONSE, [&callbacks](int, char* body, unsigned size) {
         // What a client library must check before trusting dataSize.
         KavoRespIpcPackageHeader header;
         if (size < sizeof(header)) return 0;
         memcpy(&header, body, sizeof(header));
         if (header.dataSize <= size - sizeof(header)) callbacks.handleReqCallBack(reinterpret_cast<const KavoRespIpcPackageHeader*>(body));
         return 0;
       }},
      {KAVO_IPC_RESERVED, nullptr},
      {KAVO_IPC_RAW_EVENT, [](int, char* body, unsigned size) { return Touch(body, size); }}});

  BufferState buffer;
  buffer.setSize(bufferSize);
  for (size_t position = 0, turn = 0; position < stream.bytes.size();) {
    // Compaction, as the service's endpoint does before each receive.
    const size_t unread = buffer.bufferDataCursor - buffer.bufferCursor;
    memmove(buffer.data(), buffer.data() + buffer.bufferCursor, unread);
    buffer.bufferCursor = 0, buffer.bufferDataCursor = unread;
    size_t room = 0;
    char* into = buffer.receiveRoom(&room);
    size_t want = stream.receives.empty() ? bufferSize : stream.receives[turn++ % stream.receives.size()];
    want = std::min({want, room, stream.bytes.size() - position});
    memcpy(into, stream.bytes.data() + position, want);
    buffer.received(want, room);
    position += want;
    const bool failed = handler.handleAllIpcPackageInBuffer(7, &buffer) == 0;
    // The buffered bytes are gone (or a full buffer, which no whole frame
    // leaves): start again at the next whole item.
    if (failed || buffer.bufferDataCursor == 0 || buffer.bufferDataCursor - buffer.bufferCursor == buffer.size()) {
      buffer.resetCursors();
      position = *std::lower_bound(stream.boundaries.begin(), stream.boundaries.end(), position);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kavo::fuzz::QuietLog();
  // Damaged frames write the error log under /data: keep that private.
  kavo::fuzz::PrivateMounts(/*fakeProc=*/false, /*bpffs=*/false);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  kavo::fuzz::Input input(data, size);
  const size_t bufferSize = kBufferSizes[input.Byte() % (sizeof(kBufferSizes) / sizeof(kBufferSizes[0]))];
  // Pass 1: the rest as raw bytes, straight into the framing.
  BufferState raw;
  raw.setSize(bufferSize);
  const std::string rest = input.Rest();
  if (!raw.write(rest.data(), std::min(rest.size(), bufferSize))) abort();
  for (unsigned headerSize = 0, packageSize = 0; CheckIpcPackageComplete(&raw, &headerSize, &packageSize);) {
    const char* body = raw.read(headerSize) != nullptr ? raw.read(packageSize) : nullptr;
    if (body == nullptr) abort();  // the check promised both
    Touch(body, packageSize);
  }
  // Pass 2: the rest as items.
  FeedStream(BuildStream(&input, bufferSize), bufferSize);
  return 0;
}
