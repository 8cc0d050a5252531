#pragma once

// The reference file service: a real HTTP(S) server of the file service's protocol on loopback, for
// development, tests, benchmarks and the demo. Used as a library (tests start it in-process) and by
// the quill-fileservice program.

#include <cstdint>
#include <memory>
#include <string>

namespace quill_fileservice {

struct Options {
  // Where stored files live (created when missing). Empty: a fresh directory under the system's
  // temporary directory, deleted with everything in it when the service is destroyed.
  std::string dataDirectory;
  std::string bindAddress = "127.0.0.1";
  // 0 picks a free port.
  int port = 0;
  // Serve HTTPS. Without certFile/keyFile a CA and a certificate for 127.0.0.1 and localhost are
  // generated at start; the CA's PEM is written to caOut (or into the data directory when empty).
  bool tls = false;
  std::string certFile;
  std::string keyFile;
  std::string caOut;
  // Key of the object-storage signatures and video tokens; random when empty.
  std::string signingSecret;
  // Lifetime of issued object-storage signatures and video tokens, in seconds.
  int signatureLifetimeSeconds = 3600;
  // Most worker threads, started as connections need them. Each open connection (also an idle
  // keep-alive one) holds a worker, so this bounds the connections served at once.
  int workerThreads = 256;
};

// A fault applied to requests that match it (see FileService::addFault). Query parameters of the
// same names apply a fault to a single request: ?quill_status=500, ?quill_body=...,
// ?quill_delay_ms=, ?quill_rate=, ?quill_drop_after=, ?quill_stall_after=, ?quill_cut_every=,
// ?quill_ignore_range=1, ?quill_change_etag=1.
// From outside the process, POST /_control/faults takes a JSON object (or an array of them) with
// these member names, DELETE /_control/faults clears the rules; see tools/fileservice/README.md.
struct Fault {
  // Requests whose path starts with this prefix ("" matches all).
  std::string pathPrefix;
  // Requests whose Host header (host[:port]) equals this ("" matches any host).
  std::string host;
  // How many matching requests get the fault; -1 for all of them.
  int times = -1;

  // Reply with this status instead (0: no change).
  int status = 0;
  // Reply with this body instead (with status 200 unless status is set); hasBody tells it is set.
  bool hasBody = false;
  std::string body;
  // Wait before replying.
  int delayMs = 0;
  // Send a reply body at most this many bytes a second (0: unthrottled).
  std::int64_t bytesPerSecond = 0;
  // Close the connection after this many body bytes (-1: never). Counted from the file's start: a
  // request for a range that starts there or beyond gets no byte, as a resumed download would meet
  // a fault that does not go away.
  std::int64_t dropAfterBytes = -1;
  // Stop sending, connection held open, after this many body bytes (-1: never); counted as
  // dropAfterBytes.
  std::int64_t stallAfterBytes = -1;
  // Close the connection whenever a download's body reaches a multiple of this many bytes of the
  // file, counted from the file's start (-1: never): a request resumed at such a multiple gets up
  // to the next one.
  std::int64_t cutEveryBytes = -1;
  // Answer a download with the whole file (200) whatever its Range asks for.
  bool ignoreRange = false;
  // Give the download an ETag no earlier reply had, as if the file had been replaced: a resumed
  // request's If-Range then fails and the whole file is sent.
  bool changeEtag = false;
};

// Besides the protocol's routes, GET /redirect?to=<path>&hops=<n> answers with n redirects ending
// at <path>, for redirect tests.
class FileService {
public:
  explicit FileService(Options options);
  ~FileService();  // stops the server
  FileService(const FileService&) = delete;
  FileService& operator=(const FileService&) = delete;

  // Starts serving and returns once the socket listens; false (with lastError()) when it cannot.
  bool start();
  void stop();
  const std::string& lastError() const;

  int port() const;
  bool tls() const;
  // "127.0.0.1:<port>"
  std::string hostPort() const;
  // "http(s)://127.0.0.1:<port>"
  std::string baseUrl() const;
  // PEM file of the CA that signed the served certificate (TLS only), for QUILL_CA_BUNDLE.
  std::string caCertificatePath() const;
  // The data directory in use (the one made up when Options::dataDirectory is empty).
  std::string dataDirectory() const;

  // Fault rules, applied in the order added; the first rule matching a request is used.
  void addFault(const Fault& fault);
  void clearFaults();

  // Copies a local file into the store as "/files/<key>" and returns that path, for downloads;
  // empty when it cannot.
  std::string addFile(const std::string& key, const std::string& localPath);

  // The local file behind a stored path ("/files/<key>", "/objects/<key>", "/vod/<id>.mp4"); empty
  // when nothing is stored there.
  std::string storedFile(const std::string& urlPath) const;
  // Requests received so far (all paths).
  std::uint64_t requestCount() const;

private:
  struct Impl;
  std::unique_ptr<Impl> impl;
};

}  // namespace quill_fileservice
