#include "FileServiceEnvironment.h"

#include "NetworkTestSupport.h"
#include "TestSupport.h"

#include <quill_base/JSONUtils.h>

#include <stdlib.h>

#include <memory>
#include <stdexcept>

namespace quill_test {
namespace {

class FileServiceEnvironment : public ::testing::Environment {
public:
  void SetUp() override {
    plainData = std::make_unique<TempDir>();
    secureData = std::make_unique<TempDir>();
    plain = start(false, *plainData);
    secure = start(true, *secureData);
    ASSERT_TRUE(plain && secure) << "the file service did not start";
    ASSERT_FALSE(secure->caCertificatePath().empty());
    ::setenv("QUILL_CA_BUNDLE", secure->caCertificatePath().c_str(), 1);
  }

  void TearDown() override {
    secure.reset();
    plain.reset();
    // gtest never deletes its environments: the stored files go here, not in a destructor.
    secureData.reset();
    plainData.reset();
  }

  quill_fileservice::FileService& get(Scheme scheme) {
    auto& service = scheme == Scheme::Http ? plain : secure;
    if (!service) {
      throw std::logic_error("the file service is not running");
    }
    return *service;
  }

private:
  static std::unique_ptr<quill_fileservice::FileService> start(bool tls, const TempDir& data) {
    quill_fileservice::Options options;
    options.dataDirectory = data.path();
    options.tls = tls;
    auto service = std::make_unique<quill_fileservice::FileService>(options);
    if (!service->start()) {
      ADD_FAILURE() << "file service (" << (tls ? "HTTPS" : "HTTP")
                    << "): " << service->lastError();
      return nullptr;
    }
    return service;
  }

  std::unique_ptr<TempDir> plainData;
  std::unique_ptr<TempDir> secureData;
  std::unique_ptr<quill_fileservice::FileService> plain;
  std::unique_ptr<quill_fileservice::FileService> secure;
};

// gtest owns and deletes the environment; registered before main() runs the tests.
FileServiceEnvironment* const environment = [] {
  auto* env = new FileServiceEnvironment;
  ::testing::AddGlobalTestEnvironment(env);
  return env;
}();

}  // namespace

quill_fileservice::FileService& fileService(Scheme scheme) {
  return environment->get(scheme);
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

std::string urlPathOf(const std::string& serviceReference) {
  if (serviceReference.rfind("//", 0) != 0) {
    return serviceReference;
  }
  const auto slash = serviceReference.find('/', 2);
  return slash == std::string::npos ? std::string() : serviceReference.substr(slash);
}

}  // namespace quill_test
