#pragma once

#ifndef LYR_CONTRACT_ONLY
#include <functional>
#include <string>
#endif

namespace Kt {

// Writes one log line to standard error (a newline is added when the text has none) or, while a
// sink is set, hands the exact formatted text to the sink instead. Returns the text's length.
int MyPrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

#ifndef LYR_CONTRACT_ONLY // beyond the plug-in's contract: for hosts and tests
using LogSink = std::function<void(const std::string& text)>;

// Routes MyPrintf to `sink` (an empty one restores standard error); returns the previous sink.
// Calls into the sink are serialised.
LogSink SetLogSink(LogSink sink);
#endif

} // namespace Kt
