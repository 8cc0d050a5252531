#pragma once

#include <cstddef>
#include <string>

namespace quill_network_detail {

// What the environment says about one transfer, read when the transfer is handed to the engine (on
// the caller's thread), so that a change of the environment applies to the transfers started after
// it and the network thread never reads the environment itself.
struct TransferSettings {
  // QUILL_CA_BUNDLE: PEM file of the certificate authorities to trust; empty for the system's.
  std::string caBundle;
  // QUILL_HTTP_STALL_SECONDS: a transfer fails once no byte moved either way for this long
  // (default 30; checked about once a second).
  long stallSeconds = 30;
  // QUILL_HTTP_RESUME_WAIT_MS: the first wait before asking again for the rest of a download whose
  // last attempt brought no byte; each further one doubles it (default 500).
  long resumeWaitMs = 500;

  static TransferSettings fromEnvironment();
};

// Fixed behaviour of every transfer.
constexpr long kConnectTimeoutSeconds = 15;
constexpr long kMaxRedirects = 5;
// Bytes of a reply body kept for HttpResponse::text.
constexpr std::size_t kMaxReplyBody = 1024 * 1024;
// libcurl's receive buffer: far above the 16 KiB default so that a download hands the file large
// writes. The send buffer stays at 64 KiB: an upload reads the file into it and TLS then reads it
// again, and at 512 KiB it no longer fits the core's cache (the read from the page cache alone
// took a third of an upload's CPU; 1.78 CPU s/GiB for a signed PUT at 512 KiB, 1.29 at 64 KiB).
constexpr long kReceiveBufferBytes = 512 * 1024;
constexpr long kSendBufferBytes = 64 * 1024;
// Downloads collect received bytes up to this size before writing them to the file (TLS delivers
// them in records of 16 KiB at most, whatever the receive buffer).
constexpr std::size_t kFileWriteChunk = 1024 * 1024;
// How many times in a row a download waits before asking again for its rest when the attempts
// bring no byte: the waits are resumeWaitMs and then 2, 4, 8 and 16 times that (0.5, 1, 2, 4 and
// 8 s by default); the next barren attempt fails the download.
constexpr int kMaxResumeWaits = 5;
// Progress reports of one transfer are at least this far apart (about 20 a second).
constexpr int kProgressIntervalMs = 50;

// "quill_cloud/<version>"
const char* userAgent();

}  // namespace quill_network_detail
