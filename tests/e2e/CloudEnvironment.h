#pragma once

#include "FileServiceEnvironment.h"

#include <quill_fileservice/FileService.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace quill_test {

// One reference file service over HTTPS for the whole test program, with the library pointed at
// it: the file service host is 127.0.0.1:<port>, the static-content host localhost:<port> and the
// image CDN host 127.0.0.1:<port> (the same server under two names), the CA in QUILL_CA_BUNDLE.
class CloudEnvironment : public FileServiceEnvironment {
public:
  static constexpr const char* kSigningSecret = "end-to-end secret";

  CloudEnvironment();

  static quill_fileservice::FileService& server();
  // "https://127.0.0.1:<port>" + path
  static std::string url(const std::string& path);
  // "https://localhost:<port>" + path: the static-content host
  static std::string staticUrl(const std::string& path);
  static std::string staticHost();
};

class Tracked;

// Records, in `seen`, how many requests the server had received since `baseline` when the first of
// the watched requests ended (a request's end is reported before the next waiting one starts).
void recordRequestsAtFirstEnd(Tracked& tracked, std::atomic<long>& seen, std::uint64_t baseline);

}  // namespace quill_test
