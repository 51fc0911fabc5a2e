#pragma once

// Small string utilities shared by the service and the IPC framework: digit
// test, hex dump, printf into a string, splitting, version numbers, reading a
// symbolic link, and decimal parsing that never throws.
//
// Thread-safety: every function is re-entrant.

#include <string>
#include <string_view>
#include <vector>

#include "utils/kavo_bpf_export.h"

namespace Kavo::Bpf {

// Target of the symbolic link |path| (at most 4095 bytes), or "" on failure.
KAVO_EXPORT std::string ReadSymlink(const char* path);
// Non-empty and only '0'..'9'.
KAVO_EXPORT bool IsDigits(const std::string& s);
// Two lower-case hex digits and a space per byte; "" for len <= 0.
KAVO_EXPORT std::string ConvertToHexString(const char* data, int len);
KAVO_EXPORT std::string StringPrintf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// The non-empty pieces of |s| between occurrences of the whole |delim|.
KAVO_EXPORT std::vector<std::string> Split(const std::string& s, const std::string& delim);
// "major.minor[...]" as major * 1000 + minor. A missing minor counts as 0;
// a non-numeric piece throws std::invalid_argument (std::stoi semantics).
KAVO_EXPORT int convertVersionToInt(const std::string& v);
// A handler-shaped placeholder that does nothing.
KAVO_EXPORT void TestHandleEvent(char* data, long long size);

// Parses a decimal integer the way strtoll does (leading blanks, optional
// sign, digits up to the first other character). False, with |out| left
// alone, when no digit follows or the value does not fit in 64 bits. The
// /proc readers use it so that a damaged value skips a line instead of
// throwing.
bool ParseDecimal(std::string_view text, long long* out);
// The same for an unsigned value; a leading '-' is rejected.
bool ParseUnsignedDecimal(std::string_view text, unsigned long long* out);

}  // namespace Kavo::Bpf
