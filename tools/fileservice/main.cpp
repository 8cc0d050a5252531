// quill-fileservice: runs the reference file service until SIGINT or SIGTERM (on Windows: Ctrl-C,
// Ctrl-Break or the console closing), then stops it cleanly and exits 0. The port it listens on is
// the first line of standard output (just the number), so that scripts and tests can start it with
// --port 0; everything else goes to standard error.
#include <quill_fileservice/FileService.h>

#include <CLI/CLI.hpp>

#include "StopRequests.h"

#include <cstdio>

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

  if (!quill_tools::blockStopSignals()) {
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

  quill_tools::waitForStopRequest();
  std::fprintf(stderr, "quill-fileservice: stopping\n");
  service.stop();
  std::fprintf(stderr, "quill-fileservice: stopped\n");
  quill_tools::reportStopped();
  return 0;
}
