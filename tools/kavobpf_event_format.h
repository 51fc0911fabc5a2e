#pragma once

// Names of the event types a client can subscribe to, and the rendering of
// one received event record as a line of text or a JSON object.

#include <stdint.h>

#include <string>

namespace kavo::client {

// "kavo_task_init" .. "dmabuf_update" for 0..7, "process_created" ..
// "memory_changed" for 50001..50004; "" for anything else.
std::string EventTypeName(int type);

// A number, or one of the names above. False when |text| is neither.
bool ParseEventType(const std::string& text, int* type);

// One line, fields decoded (sizes in KiB), without the line break. A record
// of an unknown type, or too short for its layout, shows as hex.
std::string FormatEventText(const char* record, size_t size);

// One JSON object on one line. |receivedBootNs| is the CLOCK_BOOTTIME time of
// receipt, so readers can measure latency against the record's own stamp.
std::string FormatEventJson(const char* record, size_t size, uint64_t receivedBootNs);

}  // namespace kavo::client
