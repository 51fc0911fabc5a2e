#pragma once

// The service library is built with hidden visibility; what a host process or
// a client links against is marked with KAVO_EXPORT.
#define KAVO_EXPORT __attribute__((visibility("default")))
