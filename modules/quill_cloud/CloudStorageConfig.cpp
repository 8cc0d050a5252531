#include <quill_cloud/CloudStorageConfig.h>

#include "inner/Deployment.h"

CloudStorageConfig::CloudStorageConfig() {
  const auto host = cloud::Deployment::fileServiceHost();
  imageUploadUrl = "https://" + host + "/file/uploadImg.action";
  preImageUploadUrl =
      "http://" + cloud::Deployment::preFileServiceHost() + "/file/uploadImgp.action";
  signatureUrl = "https://" + host + "/file/uploadBySignature.action";
  videoSignatureUrl = "https://" + host + "/file/getUploadVideoSignature.action";
}

CloudStorageConfig::CloudStorageConfig(const CloudStorageConfig&) = default;
CloudStorageConfig::CloudStorageConfig(CloudStorageConfig&&) noexcept = default;
CloudStorageConfig& CloudStorageConfig::operator=(const CloudStorageConfig&) = default;
CloudStorageConfig& CloudStorageConfig::operator=(CloudStorageConfig&&) noexcept = default;
CloudStorageConfig::~CloudStorageConfig() = default;

bool CloudStorageConfig::isValid() const {
  return !aid.empty() && !appId.empty() && !pin.empty();
}
