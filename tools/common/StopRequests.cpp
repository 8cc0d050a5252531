#include "StopRequests.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <pthread.h>
#include <signal.h>

#include <ctime>
#endif

namespace quill_tools {

#if defined(_WIN32)

namespace {

// Set by the console control handler, taken by waitForStopRequest (an auto-reset event: each wait
// that sees it takes it). The handler runs on a thread of the system's and only signals.
HANDLE stopRequested = nullptr;
// Set by reportStopped, for the handler of the console closing.
HANDLE stopped = nullptr;
constexpr DWORD kStopGraceMilliseconds = 5000;

BOOL WINAPI onConsoleControl(DWORD event) {
  switch (event) {
    case CTRL_C_EVENT:
    case CTRL_BREAK_EVENT:
      SetEvent(stopRequested);
      return TRUE;
    case CTRL_CLOSE_EVENT:
    case CTRL_LOGOFF_EVENT:
    case CTRL_SHUTDOWN_EVENT:
      SetEvent(stopRequested);
      WaitForSingleObject(stopped, kStopGraceMilliseconds);
      return TRUE;
    default:
      return FALSE;
  }
}

}  // namespace

bool blockStopSignals() {
  stopRequested = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  stopped = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  // A process started in a process group of its own, or by one that ignores Ctrl-C, inherits the
  // flag that ignores it: Ctrl-C is taken again, by the handler.
  SetConsoleCtrlHandler(nullptr, FALSE);
  return stopRequested != nullptr && stopped != nullptr &&
         SetConsoleCtrlHandler(onConsoleControl, TRUE) != 0;
}

bool waitForStopRequest(std::chrono::milliseconds timeout) {
  return stopRequested != nullptr &&
         WaitForSingleObject(stopRequested, static_cast<DWORD>(timeout.count())) == WAIT_OBJECT_0;
}

void waitForStopRequest() {
  if (stopRequested != nullptr) {
    WaitForSingleObject(stopRequested, INFINITE);
  }
}

void reportStopped() {
  if (stopped != nullptr) {
    SetEvent(stopped);
  }
}

#else

namespace {

sigset_t stopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

}  // namespace

bool blockStopSignals() {
  const sigset_t set = stopSignals();
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  sigemptyset(&ignore.sa_mask);
  return pthread_sigmask(SIG_BLOCK, &set, nullptr) == 0 &&
         sigaction(SIGPIPE, &ignore, nullptr) == 0;
}

bool waitForStopRequest(std::chrono::milliseconds timeout) {
  const sigset_t signals = stopSignals();
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(timeout);
  const timespec wait{static_cast<std::time_t>(seconds.count()),
                      static_cast<long>((timeout - seconds).count() * 1000 * 1000)};
  const int signal = sigtimedwait(&signals, nullptr, &wait);
  return signal == SIGINT || signal == SIGTERM;
}

void waitForStopRequest() {
  const sigset_t signals = stopSignals();
  int signal = 0;
  // sigwait fails only when interrupted: wait again.
  while (sigwait(&signals, &signal) != 0) {
  }
}

void reportStopped() {}

#endif

}  // namespace quill_tools
