// quill-fileservice: runs the reference file service until SIGINT or SIGTERM (on Windows: Ctrl-C,
// Ctrl-Break or the console closing), then stops it cleanly and exits 0. The port it listens on is
// the first line of standard output (just the number), so that scripts and tests can start it with
// --port 0; everything else goes to standard error.
#include <quill_fileservice/FileService.h>

#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdio>

#if defined(_WIN32)
#include <windows.h>
#else
#include <pthread.h>
#include <signal.h>
#endif

namespace {

#if defined(_WIN32)

// Raised by the console control handler (Ctrl-C, Ctrl-Break, the console closing); main() waits
// for it, then stops the service on its own thread.
HANDLE stopRequested = nullptr;
// Raised once the service has stopped: a handler for the console closing must not return before,
// since the process ends as soon as it returns.
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

bool blockStopSignals() {
  stopRequested = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  stopped = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  return stopRequested != nullptr && stopped != nullptr &&
         SetConsoleCtrlHandler(onConsoleControl, TRUE) != 0;
}

void waitForStopSignal() {
  WaitForSingleObject(stopRequested, INFINITE);
}

void reportStopped() {
  SetEvent(stopped);
}

#else

sigset_t stopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

// SIGINT and SIGTERM are blocked in every thread (threads started later inherit the mask) and
// taken by waitForStopSignal() alone: no handler runs on an arbitrary thread, so none can be held
// up by a thread that blocks inside a library (ThreadSanitizer defers handlers until the thread
// that got the signal leaves such a call).
bool blockStopSignals() {
  const sigset_t set = stopSignals();
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  sigemptyset(&ignore.sa_mask);
  // Writing to a connection the client closed must fail with EPIPE, not end the program.
  return pthread_sigmask(SIG_BLOCK, &set, nullptr) == 0 &&
         sigaction(SIGPIPE, &ignore, nullptr) == 0;
}

void waitForStopSignal() {
  const sigset_t set = stopSignals();
  int signal = 0;
  while (sigwait(&set, &signal) != 0) {
  }
}

void reportStopped() {}

#endif

}  // namespace

int main(int argc, char** argv) {
  quill_fileservice::Options options;
  CLI::App app{
      "quill-fileservice: the reference file service on loopback, for development, tests,\n"
      "benchmarks and the demo. Prints the port it listens on as the first line of standard\n"
      "output, then serves until SIGINT or SIGTERM (Ctrl-C or Ctrl-Break on Windows).\n\n"
      "Faults: per request with the query parameters quill_status, quill_body, quill_delay_ms,\n"
      "quill_rate, quill_drop_after, quill_stall_after; as rules with POST /_control/faults (a\n"
      "JSON object or array: pathPrefix, host, times, status, body, delayMs, bytesPerSecond,\n"
      "dropAfterBytes, stallAfterBytes), DELETE /_control/faults to clear them, GET to list them.\n"
      "GET /_control/stats counts the requests received."};
  app.add_option("--data", options.dataDirectory,
                 "Directory of the stored files, created when missing. Default: a fresh "
                 "directory under the system's temporary directory, deleted when the program "
                 "ends");
  app.add_option("--bind", options.bindAddress, "Address to listen on")->capture_default_str();
  app.add_option("--port", options.port, "Port to listen on; 0 picks a free one")
      ->capture_default_str()
      ->check(CLI::Range(0, 65535));
  app.add_flag("--tls", options.tls,
               "Serve HTTPS. Without --cert/--key, a CA and a certificate for 127.0.0.1, ::1 and "
               "localhost are generated at start");
  auto* cert = app.add_option("--cert", options.certFile,
                              "PEM certificate (chain) to serve instead of a generated one")
                   ->check(CLI::ExistingFile);
  auto* key = app.add_option("--key", options.keyFile, "PEM private key of --cert")
                  ->check(CLI::ExistingFile);
  cert->needs(key);
  key->needs(cert);
  app.add_option("--ca-out", options.caOut,
                 "Where to write the generated CA's certificate (PEM) for clients to trust, e.g. "
                 "through QUILL_CA_BUNDLE. Default: <data>/ca.pem");
  app.add_option("--secret", options.signingSecret,
                 "Key of the upload signatures and video tokens. Default: random");
  app.add_option("--signature-lifetime", options.signatureLifetimeSeconds,
                 "Lifetime of issued upload signatures and video tokens, in seconds")
      ->capture_default_str();
  app.add_option("--threads", options.workerThreads,
                 "Worker threads; each open connection holds one")
      ->capture_default_str()
      ->check(CLI::Range(1, 4096));
  CLI11_PARSE(app, argc, argv);

  if (!blockStopSignals()) {
    std::fprintf(stderr, "quill-fileservice: cannot set up signal handling\n");
    return 1;
  }

  quill_fileservice::FileService service(options);
  if (!service.start()) {
    std::fprintf(stderr, "quill-fileservice: %s\n", service.lastError().c_str());
    return 1;
  }
  std::printf("%d\n", service.port());
  std::fflush(stdout);
  std::fprintf(stderr, "quill-fileservice: serving %s, data in %s\n", service.baseUrl().c_str(),
               service.dataDirectory().c_str());
  if (service.tls() && !service.caCertificatePath().empty()) {
    std::fprintf(stderr, "quill-fileservice: CA certificate in %s\n",
                 service.caCertificatePath().c_str());
  }

  waitForStopSignal();
  std::fprintf(stderr, "quill-fileservice: stopping\n");
  service.stop();
  std::fprintf(stderr, "quill-fileservice: stopped\n");
  reportStopped();
  return 0;
}
