#include "detail/ServiceContext.h"

namespace quill_fileservice::detail {

ServiceContext::ServiceContext(std::string dataDirectory, std::string signingSecret,
                               int lifetimeSeconds, bool tls)
    : storage(std::move(dataDirectory)),
      signer(std::move(signingSecret), lifetimeSeconds),
      tls(tls) {}

std::string ServiceContext::hostOf(const httplib::Request& request) const {
  std::string host = request.get_header_value("Host");
  return host.empty() ? fallbackHost : host;
}

}  // namespace quill_fileservice::detail
