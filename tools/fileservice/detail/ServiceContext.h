#pragma once

#include "detail/Faults.h"
#include "detail/HttpLib.h"
#include "detail/Signer.h"
#include "detail/StopSignal.h"
#include "detail/Storage.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace quill_fileservice::detail {

// What every route shares: the store, the signer, the fault rules, the stop signal and the request
// counter. Lives as long as the service; routes only read it or use its thread-safe members.
struct ServiceContext {
  ServiceContext(std::string dataDirectory, std::string signingSecret, int lifetimeSeconds,
                 bool tls);

  Storage storage;
  Signer signer;
  FaultRules faults;
  StopSignal stop;
  std::atomic<std::uint64_t> requests{0};
  const bool tls;
  // "127.0.0.1:<port>", for requests that carry no Host header; set once the port is known.
  std::string fallbackHost;

  std::string scheme() const { return tls ? "https" : "http"; }
  // The request's Host header as it came (host[:port]), or fallbackHost without one.
  std::string hostOf(const httplib::Request& request) const;
};

}  // namespace quill_fileservice::detail
