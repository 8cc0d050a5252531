#pragma once

// How the command-line programs are asked to stop: SIGINT and SIGTERM (POSIX); Ctrl-C,
// Ctrl-Break, the console closing, a log-off or a shutdown (Windows console). They only ever ask:
// the request is taken by waitForStopRequest on the program's own thread, which then stops what it
// runs cleanly.
#include <chrono>

namespace quill_tools {

// Call first thing in main, before any thread exists (POSIX: the blocked signals are inherited by
// every thread, so no handler runs on an arbitrary one). SIGPIPE is ignored: writing to a
// connection the peer closed fails with EPIPE instead of ending the program.
bool blockStopSignals();

// Waits up to `timeout` for a stop request; true when one came (each request is taken once).
bool waitForStopRequest(std::chrono::milliseconds timeout);

// Waits for a stop request however long it takes.
void waitForStopRequest();

// Says the program has finished stopping. On Windows the process ends as soon as the handler of a
// console closing, log-off or shutdown returns: the handler holds it until this is called, for
// at most 5 s.
void reportStopped();

}  // namespace quill_tools
