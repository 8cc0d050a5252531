#include "Environment.h"

#include <quill_cloud/CloudStorageConfig.h>
#include <quill_cloud/CloudStorageRequest.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

namespace {

// Sets an environment variable for the life of the object.
class ScopedEnv {
public:
  ScopedEnv(const char* name, const char* value) : name(name) {
    const char* old = std::getenv(name);
    if (old != nullptr) {
      previous = old;
      hadPrevious = true;
    }
    if (value != nullptr) {
      quill_test::setEnvironment(name, value);
    } else {
      quill_test::unsetEnvironment(name);
    }
  }
  ~ScopedEnv() {
    if (hadPrevious) {
      quill_test::setEnvironment(name, previous.c_str());
    } else {
      quill_test::unsetEnvironment(name);
    }
  }

private:
  const char* name;
  std::string previous;
  bool hadPrevious = false;
};

}  // namespace

TEST(CloudStorageConfig, DefaultsUseTheBuiltInHosts) {
  ScopedEnv host("QUILL_FILE_SERVICE_HOST", nullptr);
  ScopedEnv pre("QUILL_PRE_FILE_SERVICE_HOST", nullptr);
  const CloudStorageConfig config;
  EXPECT_EQ(config.appId, "");
  EXPECT_EQ(config.aid, "");
  EXPECT_EQ(config.pin, "");
  EXPECT_EQ(config.waitForConfig, 1);
  EXPECT_EQ(config.userDirectory, "");
  EXPECT_EQ(config.imageUploadUrl, "https://files.quill.example/file/uploadImg.action");
  EXPECT_EQ(config.preImageUploadUrl, "http://pre-files.quill.example/file/uploadImgp.action");
  EXPECT_EQ(config.uploadMode, 1);
  EXPECT_EQ(config.signatureUrl, "https://files.quill.example/file/uploadBySignature.action");
  EXPECT_EQ(config.videoSignatureUrl,
            "https://files.quill.example/file/getUploadVideoSignature.action");
}

TEST(CloudStorageConfig, EnvironmentOverridesTheHostsWithPorts) {
  ScopedEnv host("QUILL_FILE_SERVICE_HOST", "127.0.0.1:8443");
  ScopedEnv pre("QUILL_PRE_FILE_SERVICE_HOST", "localhost:8080");
  const CloudStorageConfig config;
  EXPECT_EQ(config.imageUploadUrl, "https://127.0.0.1:8443/file/uploadImg.action");
  EXPECT_EQ(config.preImageUploadUrl, "http://localhost:8080/file/uploadImgp.action");
  EXPECT_EQ(config.signatureUrl, "https://127.0.0.1:8443/file/uploadBySignature.action");
  EXPECT_EQ(config.videoSignatureUrl, "https://127.0.0.1:8443/file/getUploadVideoSignature.action");
}

TEST(CloudStorageConfig, ValidOnlyWithAidAppIdAndPin) {
  CloudStorageConfig config;
  EXPECT_FALSE(config.isValid());
  config.appId = "app";
  config.pin = "pin";
  EXPECT_FALSE(config.isValid()) << "aid empty";
  config.aid = "aid";
  EXPECT_TRUE(config.isValid()) << "userDirectory is not part of the check";
  config.pin.clear();
  EXPECT_FALSE(config.isValid());
  config.pin = "pin";
  config.appId.clear();
  EXPECT_FALSE(config.isValid());
}

TEST(CloudStorageConfig, CopiesAndMovesEveryField) {
  CloudStorageConfig config;
  config.appId = "a";
  config.aid = "b";
  config.pin = "c";
  config.waitForConfig = 0;
  config.userDirectory = "/u";
  config.imageUploadUrl = "i";
  config.preImageUploadUrl = "p";
  config.uploadMode = 7;
  config.signatureUrl = "s";
  config.videoSignatureUrl = "v";

  const CloudStorageConfig copy(config);
  CloudStorageConfig assigned;
  assigned = copy;
  CloudStorageConfig moved(std::move(assigned));
  for (const CloudStorageConfig* c : {&copy, static_cast<const CloudStorageConfig*>(&moved)}) {
    EXPECT_EQ(c->appId, "a");
    EXPECT_EQ(c->aid, "b");
    EXPECT_EQ(c->pin, "c");
    EXPECT_EQ(c->waitForConfig, 0);
    EXPECT_EQ(c->userDirectory, "/u");
    EXPECT_EQ(c->imageUploadUrl, "i");
    EXPECT_EQ(c->preImageUploadUrl, "p");
    EXPECT_EQ(c->uploadMode, 7);
    EXPECT_EQ(c->signatureUrl, "s");
    EXPECT_EQ(c->videoSignatureUrl, "v");
  }
}

TEST(CloudStorageRequest, DefaultsKeepResultCodeOne) {
  const CloudStorageRequest download(false);
  EXPECT_FALSE(download.isUpload);
  EXPECT_EQ(download.resultCode, CloudStorageResult::kPending);
  EXPECT_EQ(download.tag, 0);
  EXPECT_EQ(download.reserved, 0);
  EXPECT_EQ(download.fileSize, 0);
  EXPECT_EQ(download.kind, 0);
  EXPECT_TRUE(download.requestId.empty());
  EXPECT_TRUE(download.url.empty());
  EXPECT_TRUE(download.resultMessage.empty());
  EXPECT_FALSE(download.stateCallback);
  EXPECT_FALSE(download.progressCallback);
  EXPECT_TRUE(CloudStorageRequest(true).isUpload);
}

TEST(CloudStorageRequest, CopiesAndMovesEveryFieldWithTheCallbacks) {
  CloudStorageRequest request(true);
  int stateCalls = 0;
  int progressCalls = 0;
  request.tag = 42;
  request.requestId = "id";
  request.kind = CloudStorageKind::kVideo;
  request.reserved = 1;
  request.url = "u";
  request.auxText1 = "x1";
  request.directory = "d";
  request.fileName = "f";
  request.auxText2 = "x2";
  request.fileSize = 1ll << 40;
  request.auxText3 = "x3";
  request.auxText4 = "x4";
  request.resultCode = CloudStorageResult::kTransferFailed;
  request.resultMessage = "m";
  request.stateCallback = [&](std::shared_ptr<CloudStorageRequest>, int) { ++stateCalls; };
  request.progressCallback = [&](std::shared_ptr<CloudStorageRequest>, int) { ++progressCalls; };

  const CloudStorageRequest copy(request);
  CloudStorageRequest assigned(false);
  assigned = copy;
  const CloudStorageRequest moved(std::move(assigned));
  for (const CloudStorageRequest* r : {&copy, &moved}) {
    EXPECT_EQ(r->tag, 42);
    EXPECT_EQ(r->requestId, "id");
    EXPECT_EQ(r->kind, 3);
    EXPECT_TRUE(r->isUpload);
    EXPECT_EQ(r->reserved, 1);
    EXPECT_EQ(r->url, "u");
    EXPECT_EQ(r->auxText1, "x1");
    EXPECT_EQ(r->directory, "d");
    EXPECT_EQ(r->fileName, "f");
    EXPECT_EQ(r->auxText2, "x2");
    EXPECT_EQ(r->fileSize, 1ll << 40);
    EXPECT_EQ(r->auxText3, "x3");
    EXPECT_EQ(r->auxText4, "x4");
    EXPECT_EQ(r->resultCode, CloudStorageResult::kTransferFailed);
    EXPECT_EQ(r->resultMessage, "m");
    r->stateCallback(nullptr, 3);
    r->progressCallback(nullptr, 5);
  }
  EXPECT_EQ(stateCalls, 2);
  EXPECT_EQ(progressCalls, 2);
}
