#include "OverBothSchemes.h"

#include "FileServiceEnvironment.h"
#include "NetworkTestSupport.h"
#include "TestSupport.h"

#include <quill_base/JSONUtils.h>

namespace quill_test {
namespace {

FileServiceEnvironment* startOnePerScheme(bool tls) {
  FileServiceEnvironment::Settings settings;
  settings.options.tls = tls;
  // The HTTPS instance makes its own CA; the engine is told to trust it.
  settings.trustItsCa = tls;
  return registerEnvironment(new FileServiceEnvironment(settings));
}

FileServiceEnvironment* const plain = startOnePerScheme(false);
FileServiceEnvironment* const secure = startOnePerScheme(true);

}  // namespace

quill_fileservice::FileService& fileService(Scheme scheme) {
  return (scheme == Scheme::Http ? plain : secure)->service();
}

std::string schemeName(const ::testing::TestParamInfo<Scheme>& info) {
  return info.param == Scheme::Http ? "Http" : "Https";
}

std::string signedObjectUrl(quill_fileservice::FileService& service, const std::string& key) {
  auto record = TransferRecord::make();
  HttpClient::executePost(service.baseUrl() + "/file/uploadBySignature.action",
                          {{"appId", "quill-test"},
                           {"aid", "account-7"},
                           {"pin", "user-1"},
                           {"clientType", "desktop"},
                           {"key", key}},
                          nullptr, record->completion());
  auto response = record->wait();
  Json::Value json;
  if (response == nullptr || response->outcome != HttpResponse::kCompleted ||
      !JSONUtils::parseJSON(response->text, json) || JSONUtils::optInt("code", json, -1) != 1) {
    ADD_FAILURE() << "no signature for " << key << ": "
                  << (response ? response->text : "no completion");
    return {};
  }
  return JSONUtils::optString("uploadPath", json, "");
}

std::string OverBothSchemes::storePattern(const std::string& key, std::uint64_t size) {
  const auto local = dir.file("source-" + key);
  writePatternFile(local, size);
  const auto urlPath = service().addFile(key, local);
  EXPECT_FALSE(urlPath.empty()) << "the service did not take " << key;
  return urlPath;
}

std::string urlPathOf(const std::string& serviceReference) {
  if (serviceReference.rfind("//", 0) != 0) {
    return serviceReference;
  }
  const auto slash = serviceReference.find('/', 2);
  return slash == std::string::npos ? std::string() : serviceReference.substr(slash);
}

}  // namespace quill_test
