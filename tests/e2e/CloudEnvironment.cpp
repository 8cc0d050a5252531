#include "CloudEnvironment.h"

#include "Tracked.h"

namespace quill_test {
namespace {

FileServiceEnvironment::Settings overHttpsWithHostsPointedHere() {
  FileServiceEnvironment::Settings settings;
  settings.options.tls = true;
  settings.options.signingSecret = CloudEnvironment::kSigningSecret;
  settings.trustItsCa = true;
  settings.pointHostsHere = true;
  return settings;
}

CloudEnvironment* const environment = registerEnvironment(new CloudEnvironment);

}  // namespace

CloudEnvironment::CloudEnvironment() : FileServiceEnvironment(overHttpsWithHostsPointedHere()) {}

quill_fileservice::FileService& CloudEnvironment::server() {
  return environment->service();
}

std::string CloudEnvironment::url(const std::string& path) {
  return "https://127.0.0.1:" + std::to_string(server().port()) + path;
}

std::string CloudEnvironment::staticHost() {
  return "localhost:" + std::to_string(server().port());
}

std::string CloudEnvironment::staticUrl(const std::string& path) {
  return "https://" + staticHost() + path;
}

void recordRequestsAtFirstEnd(Tracked& tracked, std::atomic<long>& seen, std::uint64_t baseline) {
  auto record = tracked.request->stateCallback;
  tracked.request->stateCallback = [&seen, baseline, record](
                                       std::shared_ptr<CloudStorageRequest> request, int state) {
    long unset = -1;
    seen.compare_exchange_strong(
        unset, static_cast<long>(CloudEnvironment::server().requestCount() - baseline));
    record(request, state);
  };
}

}  // namespace quill_test
