#pragma once

#include <quill_cloud/quill_cloud_export.h>

#include <cstdint>
#include <string>

// The account identity, the user's directory and the service endpoints. The storage service keeps
// the one live copy; hosts change it only through CloudStorageService::changeUser and changeAid.
//
// A default-constructed configuration takes its endpoints from the deployment's file service hosts:
// the build's QUILL_FILE_SERVICE_HOST and QUILL_PRE_FILE_SERVICE_HOST, overridden by environment
// variables of the same names (a host may carry a port, "127.0.0.1:8443").
class QUILL_CLOUD_EXPORT CloudStorageConfig {
public:
  CloudStorageConfig();
  CloudStorageConfig(const CloudStorageConfig&);
  CloudStorageConfig(CloudStorageConfig&&) noexcept;
  CloudStorageConfig& operator=(const CloudStorageConfig&);
  CloudStorageConfig& operator=(CloudStorageConfig&&) noexcept;
  ~CloudStorageConfig();

  // True when aid, appId and pin are all set; the directory and the endpoints are not checked.
  bool isValid() const;

  std::string appId;
  std::string aid;
  std::string pin;
  // Non-zero: uploads wait until isValid() holds; 0: they never wait.
  std::int32_t waitForConfig = 1;
  std::string userDirectory;
  std::string imageUploadUrl;
  // The pre-release image endpoint; kept with the record, no transfer uses it.
  std::string preImageUploadUrl;
  // For file and video uploads: 1 asks for an upload signature first; any other value uploads
  // directly to signatureUrl.
  std::int32_t uploadMode = 1;
  std::string signatureUrl;
  std::string videoSignatureUrl;
};
