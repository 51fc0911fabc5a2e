#pragma once

// The rendering of one event as a line of text or a JSON object, for
// kavobpf_client.

#include <stdint.h>

#include <string>

#include "kavobpf/kavobpf_client.h"

namespace kavo::client {

// One line, fields decoded (sizes in KiB), without the line break. A record
// of an unknown type, or too short for its layout, shows as hex.
std::string FormatEventText(const kavobpf::Event& event);

// One JSON object on one line. |receivedBootNs| is the CLOCK_BOOTTIME time of
// receipt, so readers can measure latency against the record's own stamp.
std::string FormatEventJson(const kavobpf::Event& event, uint64_t receivedBootNs);

}  // namespace kavo::client
